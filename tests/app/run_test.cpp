// SPDX-License-Identifier: GPL-2.0-only
//
// The command on real interfaces, in a network and mount namespace of the test's own; skipped where
// none can be made. That it forwards traffic is for the integration test; here it comes up, shows
// its control files, and goes down without a trace.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
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
  expect_clean_ends_without_files("run --config @/home.toml", "a");
}

TEST_F(run_test, without_the_privilege_it_says_which) {
  const std::string line = "setpriv --bounding-set -net_raw --inh-caps -net_raw " COMMAND
                           " run --config " +
                           path("home.toml") + " 2>" + path("run.err");
  const int status = std::system(line.c_str());
  EXPECT_EQ(WEXITSTATUS(status), 2);
  EXPECT_EQ(get("run.err"), "tarvelo: " + path("home.toml") +
                                ":1:1: interface lan0: no privilege for packet sockets; run with "
                                "CAP_NET_RAW (as root)\n");
}

}  // namespace
}  // namespace tarvelo::test
