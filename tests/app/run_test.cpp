// SPDX-License-Identifier: GPL-2.0-only
//
// The command on real interfaces, in a network and mount namespace of the test's own; skipped where
// none can be made. That it forwards traffic is for the integration test; here it comes up, shows
// its control files, and goes down without a trace.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <thread>

#include "tests/app/command_fixture.h"
#include "tests/app/home_config.h"

namespace tarvelo::test {
namespace {

constexpr std::chrono::seconds patience{10};

class run_test : public command_test {
 protected:
  void SetUp() override {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      GTEST_SKIP() << "no namespaces here";
    }
    for (const char* command : {"ip link add lan0 type veth peer name host0",
                                "ip link add wan0 type veth peer name gate0", "ip link set lan0 up",
                                "ip link set host0 up", "ip link set wan0 up"}) {
      ASSERT_EQ(std::system(command), 0) << command;
    }
    put("home.toml", std::string(home_config) + "[control]\nmount = \"" + path("a/b") + "\"\n");
  }

  /// Starts the command and waits until it says that it runs.
  [[nodiscard]] pid_t start() const {
    const std::string config = path("home.toml");
    const pid_t child = fork();
    if (child == 0) {
      (void)!freopen(path("run.out").c_str(), "w", stdout);
      (void)!freopen(path("run.err").c_str(), "w", stderr);
      execl(COMMAND, COMMAND, "run", "--config", config.c_str(), nullptr);
      _exit(127);
    }
    const auto end = std::chrono::steady_clock::now() + patience;
    while (get("run.err").find("running;") == std::string::npos) {
      if (std::chrono::steady_clock::now() > end) {
        ADD_FAILURE() << "does not come up: " << get("run.err");
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return child;
  }
  [[nodiscard]] static int stop(pid_t child, int signal) {
    kill(child, signal);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  [[nodiscard]] bool has_control_files() const {
    return get("run.err").find("control files in") != std::string::npos;
  }
};

TEST_F(run_test, comes_up_shows_its_control_files_and_goes_down_without_a_trace) {
  const pid_t child = start();
  if (has_control_files()) {
    EXPECT_EQ(list("a/b/vok").size(), 10U);
    EXPECT_EQ(get("a/b/vok/enable"), "1:\n");
    EXPECT_EQ(std::system(("echo 0 >" + path("a/b/vok/enable")).c_str()), 0);
    EXPECT_EQ(get("a/b/vok/enable"), "0:\n");
    const auto status = std::filesystem::status(path("a/b/vok/ipc_info"));
    EXPECT_EQ(static_cast<unsigned>(status.permissions()), 0440U);

    // The module's own refusal reaches the writer.
    const int fd = open(path("a/b/vok/enable").c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write(fd, std::string(4096, ' ').data(), 4096), 4096);
    EXPECT_EQ(write(fd, std::string(4097, ' ').data(), 4097), -1);
    EXPECT_EQ(errno, ENOMEM);
    close(fd);
  }
  EXPECT_EQ(stop(child, SIGTERM), 0);
  EXPECT_NE(get("run.out").find(" frames offered: "), std::string::npos) << get("run.out");
  EXPECT_FALSE(std::filesystem::exists(path("a")));
}

/// The values of one line of every thread's status.
std::set<std::string> status_of_threads(pid_t process, const std::string& name) {
  std::set<std::string> values;
  const std::string tasks = "/proc/" + std::to_string(process) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    std::ifstream status(task.path() / "status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with(name + ":\t")) values.insert(line.substr(name.size() + 2));
    }
  }
  return values;
}

/// The processes that `parent` has started, by the kernel's own account.
std::vector<pid_t> children_of(pid_t parent) {
  const std::string id = std::to_string(parent);
  std::ifstream list("/proc/" + id + "/task/" + id + "/children");
  return {std::istream_iterator<pid_t>(list), {}};
}

TEST_F(run_test, no_thread_keeps_a_privilege_once_it_runs) {
  const pid_t child = start();
  const std::pair<const char*, const char*> lines[] = {{"Uid", "65534\t65534\t65534\t65534"},
                                                       {"Gid", "65534\t65534\t65534\t65534"},
                                                       {"Groups", " "},
                                                       {"CapInh", "0000000000000000"},
                                                       {"CapPrm", "0000000000000000"},
                                                       {"CapEff", "0000000000000000"},
                                                       {"CapAmb", "0000000000000000"},
                                                       {"NoNewPrivs", "1"}};
  for (const auto& [name, value] : lines) {
    EXPECT_EQ(status_of_threads(child, name), std::set<std::string>{value}) << name;
  }
  if (has_control_files()) {
    const std::vector<pid_t> keeper = children_of(child);
    ASSERT_EQ(keeper.size(), 1U);
    // DAC_OVERRIDE and SYS_ADMIN.
    EXPECT_EQ(status_of_threads(keeper[0], "CapPrm"), std::set<std::string>{"0000000000200002"});
  }
  EXPECT_EQ(stop(child, SIGTERM), 0);
}

TEST_F(run_test, a_router_that_is_killed_leaves_no_mount) {
  const pid_t child = start();
  const std::vector<pid_t> keeper = children_of(child);
  EXPECT_EQ(stop(child, SIGKILL), -1);
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!keeper.empty() && kill(keeper[0], 0) == 0 && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_FALSE(std::filesystem::exists(path("a")));
}

/// Runs `use` as nobody; what it returns is the child's exit status.
template <typename Use>
int as_nobody(Use use) {
  const pid_t child = fork();
  if (child == 0) {
    constexpr uid_t nobody = 65534;
    if (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0) _exit(127);
    _exit(use());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WEXITSTATUS(status);
}

TEST_F(run_test, each_control_file_lets_its_owner_in_and_others_only_where_its_mode_does) {
  std::filesystem::permissions(path(""), std::filesystem::perms(0755));
  const pid_t child = start();
  if (!has_control_files()) GTEST_SKIP() << "no file systems in user space";
  const std::map<std::string, unsigned> modes = {{"enable", 0644},
                                                 {"slow_xmit_enable", 0644},
                                                 {"statistics_info", 0644},
                                                 {"version", 0644},
                                                 {"ipc_count", 0644},
                                                 {"ipc_info", 0440},
                                                 {"ipc_v6_count", 0644},
                                                 {"ipc_v6_info", 0440},
                                                 {"statistics_forward_ipv6_packet_num", 0644},
                                                 {"brc_info", 0440}};
  std::map<std::string, unsigned> seen;
  for (const std::string& name : list("a/b/vok")) {
    const std::string file = path("a/b/vok/" + name);
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, getuid()) << name;
    EXPECT_EQ(status.st_gid, getgid()) << name;
    const unsigned mode = status.st_mode & 07777U;
    seen[name] = mode;
    const auto may = [&](int how) {
      return as_nobody([&] { return open(file.c_str(), how) >= 0 ? 1 : 0; });
    };
    EXPECT_EQ(may(O_RDONLY), (mode & S_IROTH) != 0 ? 1 : 0) << name;
    EXPECT_EQ(may(O_WRONLY), (mode & S_IWOTH) != 0 ? 1 : 0) << name;
  }
  EXPECT_EQ(seen, modes);
  EXPECT_EQ(stop(child, SIGTERM), 0);
}

TEST_F(run_test, stops_while_a_user_has_a_listing_open) {
  const pid_t child = start();
  std::ifstream listing(path("a/b/vok/ipc_info"));
  EXPECT_EQ(stop(child, SIGINT), 0);
}

TEST_F(run_test, a_mount_point_in_use_is_left_alone) {
  std::filesystem::create_directories(path("a/b"));
  put("a/b/file", "mine");
  const command_result result = run("run --config @/home.toml");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.complaint(), path("home.toml") + ":26:9: mount point " + path("a/b") +
                                    ": not empty; name an empty directory");
  EXPECT_EQ(get("a/b/file"), "mine");

  std::filesystem::remove(path("a/b/file"));
  ASSERT_EQ(mount("none", path("a/b").c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_EQ(run("run --config @/home.toml").complaint(),
            path("home.toml") + ":26:9: mount point " + path("a/b") +
                ": in use; unmount it or name another directory");
  umount(path("a/b").c_str());
}

TEST_F(run_test, a_set_up_that_fails_half_way_leaves_nothing_behind) {
  put("text", "this is no module");
  const command_result no_module = run("run --config @/home.toml --module @/text");
  EXPECT_EQ(no_module.status, 2);
  EXPECT_NE(no_module.complaint(), no_module.err);
  EXPECT_FALSE(std::filesystem::exists(path("a")));
  expect_clean_ends_under("nofile", "run --config @/home.toml", "a");
  // The limit holds for the threads of whom the router has become.
  expect_clean_ends_under("nproc", "run --config @/home.toml", "a");
}

TEST_F(run_test, without_the_privilege_it_says_which) {
  const std::pair<const char*, const char*> rows[] = {
      {"-net_raw",
       ":1:1: interface lan0: no privilege for packet sockets; run with CAP_NET_RAW (as root)"},
      {"-setuid,-setgid",
       "cannot give up being root: Operation not permitted; start it with CAP_SETUID and "
       "CAP_SETGID as well, or as another user with CAP_NET_RAW"}};
  for (const auto& [taken, complaint] : rows) {
    const std::string line = std::string("setpriv --bounding-set ") + taken + " --inh-caps " +
                             taken + " " COMMAND " run --config " + path("home.toml") + " 2>" +
                             path("run.err");
    const int status = std::system(line.c_str());
    EXPECT_EQ(WEXITSTATUS(status), 2);
    const std::string place = *complaint == ':' ? path("home.toml") : "";
    EXPECT_EQ(get("run.err"), "tarvelo: " + place + complaint + "\n");
    EXPECT_FALSE(std::filesystem::exists(path("a")));
  }
}

}  // namespace
}  // namespace tarvelo::test
