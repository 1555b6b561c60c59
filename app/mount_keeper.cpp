// SPDX-License-Identifier: GPL-2.0-only
#include "app/mount_keeper.h"

#define FUSE_USE_VERSION 314

#include <fcntl.h>
#include <fmt/format.h>
#include <fuse_lowlevel.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

#include "app/input_error.h"
#include "app/mount_point.h"
#include "app/privileges.h"

namespace tarvelo::app {

namespace {

constexpr const char* fuse_device = "/dev/fuse";
constexpr std::size_t longest_text = 4096;

/// First byte of the one message that the keeper sends; a reason or a complaint follows.
enum class outcome : char {
  mounted = 'm',
  not_available = 'n',
  bad_mount_point = 'b'
};

/// Room for one file descriptor beside a message, as sendmsg() wants it.
union fd_message {
  std::array<char, CMSG_SPACE(sizeof(int))> room;
  cmsghdr align;
};

/// `fd` -1: none goes along.
void send_outcome(int line, outcome what, const std::string& text, int fd = -1) {
  std::string message = static_cast<char>(what) + text.substr(0, longest_text - 1);
  iovec data{message.data(), message.size()};
  fd_message control{};
  msghdr header{};
  header.msg_iov = &data;
  header.msg_iovlen = 1;
  if (fd >= 0) {
    header.msg_control = control.room.data();
    header.msg_controllen = control.room.size();
    cmsghdr* const part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(part), &fd, sizeof fd);
  }
  (void)sendmsg(line, &header, MSG_NOSIGNAL);
}

/// The library explains failures on its own log only. Text of the last one.
std::string last_message;

void keep_message(fuse_log_level, const char* format, va_list arguments) {
  char text[256];
  std::vsnprintf(text, sizeof text, format, arguments);
  last_message = text;
  while (!last_message.empty() && last_message.back() == '\n')
    last_message.pop_back();
}

std::string why_missing() {
  const ports::owned_fd device{open(fuse_device, O_RDWR | O_CLOEXEC)};
  return device ? std::string() : fmt::format("{}: {}", fuse_device, std::strerror(errno));
}

/// The mounted file system, unmounted with its owner.
class mounted_session {
 public:
  explicit mounted_session(const std::string& path) {
    // Only root may let others in without the host's leave.
    const std::string options = geteuid() == 0 ? "default_permissions,fsname=tarvelo,allow_other"
                                               : "default_permissions,fsname=tarvelo";
    fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
    for (const char* text : {"tarvelo", "-o", options.c_str()})
      fuse_opt_add_arg(&arguments, text);
    const fuse_lowlevel_ops none{};
    fuse_set_log_func(keep_message);
    session_ = fuse_session_new(&arguments, &none, sizeof none, nullptr);
    fuse_opt_free_args(&arguments);
    if (session_ != nullptr && fuse_session_mount(session_, path.c_str()) != 0) {
      fuse_session_destroy(session_);
      session_ = nullptr;
    }
  }
  ~mounted_session() {
    if (session_ == nullptr) return;
    fuse_session_unmount(session_);
    fuse_session_destroy(session_);
  }
  mounted_session(const mounted_session&) = delete;
  mounted_session& operator=(const mounted_session&) = delete;

  /// -1: not mounted, last_message says why.
  [[nodiscard]] int connection() const {
    return session_ != nullptr ? fuse_session_fd(session_) : -1;
  }

 private:
  fuse_session* session_ = nullptr;
};

/// Whoever stops the router from its terminal means the router; the keeper follows it.
void block_all_signals() {
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
}

/// The router sends nothing: what can be read is its end.
void wait_for_end(int line) {
  char nothing = 0;
  while (read(line, &nothing, 1) < 0 && errno == EINTR) {
  }
}

void keep(const std::string& path, int line) try {
  block_all_signals();
  const mount_point point(path);
  if (const std::string reason = why_missing(); !reason.empty()) {
    return send_outcome(line, outcome::not_available, reason);
  }
  const mounted_session session(path);
  if (session.connection() < 0) {
    return send_outcome(line, outcome::not_available,
                        last_message.empty() ? "cannot be mounted" : last_message);
  }
  keep_unmounting_privileges();
  send_outcome(line, outcome::mounted, "", session.connection());
  wait_for_end(line);
} catch (const input_error& error) {
  send_outcome(line, outcome::bad_mount_point, error.what());
} catch (const std::exception& error) {
  send_outcome(line, outcome::not_available, error.what());
}

}  // namespace

mount_keeper::mount_keeper(const std::string& path) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    reason_ = std::strerror(errno);
    return;
  }
  line_ = ports::owned_fd{ends[0]};
  ports::owned_fd keepers{ends[1]};
  process_ = fork();
  if (process_ == 0) {
    line_.reset();
    keep(path, keepers.get());
    _exit(0);
  }
  if (process_ < 0) {
    reason_ = std::strerror(errno);
    return;
  }
  keepers.reset();
  try {
    receive_outcome();
  } catch (...) {
    wait();
    throw;
  }
}

void mount_keeper::receive_outcome() {
  std::array<char, longest_text> text;
  iovec data{text.data(), text.size()};
  fd_message control{};
  msghdr header{};
  header.msg_iov = &data;
  header.msg_iovlen = 1;
  header.msg_control = control.room.data();
  header.msg_controllen = control.room.size();
  const ssize_t got = recvmsg(line_.get(), &header, MSG_CMSG_CLOEXEC);
  if (got <= 0) {
    reason_ = "the process that mounts has died";
    return;
  }
  reason_.assign(text.data() + 1, static_cast<std::size_t>(got) - 1);
  if (text[0] == static_cast<char>(outcome::bad_mount_point)) throw input_error(reason_);
  const cmsghdr* const part = CMSG_FIRSTHDR(&header);
  if (part != nullptr && part->cmsg_type == SCM_RIGHTS) {
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(part), sizeof fd);
    connection_ = ports::owned_fd{fd};
  } else if (reason_.empty()) {
    reason_ = "no file descriptor left for the mount";
  }
}

void mount_keeper::wait() noexcept {
  line_.reset();
  if (process_ < 0) return;
  while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
}

mount_keeper::~mount_keeper() {
  connection_.reset();
  wait();
}

}  // namespace tarvelo::app
