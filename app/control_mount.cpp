// SPDX-License-Identifier: GPL-2.0-only
#include "app/control_mount.h"

#define FUSE_USE_VERSION 314

#include <fcntl.h>
#include <fmt/format.h>
#include <fuse.h>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <thread>

#include "app/mount_point.h"
#include "kernel/context.h"
#include "kernel/proc_tree.h"
#include "ports/owned_fd.h"

namespace tarvelo::app {

namespace {

constexpr const char* fuse_device = "/dev/fuse";
constexpr nlink_t directory_links = 2;
constexpr mode_t directory_mode = S_IFDIR | 0555;

/// Files that users have open. Only the serving thread uses it, and the owner after that thread.
using open_files = std::set<std::unique_ptr<proc::open_file>>;

open_files& files_of_mount() {
  return *static_cast<open_files*>(fuse_get_context()->private_data);
}

proc::open_file* file_of(const fuse_file_info* info) {
  return reinterpret_cast<proc::open_file*>(info->fh);
}

/// The kernel's tree has relative paths, "" for its top.
const char* tree_path(const char* path) {
  return path + 1;
}

void* start(fuse_conn_info*, fuse_config* config) {
  // Contents are made on reading and files come and go: nothing may be remembered.
  config->direct_io = 1;
  config->attr_timeout = 0;
  config->entry_timeout = 0;
  config->negative_timeout = 0;
  return fuse_get_context()->private_data;
}

int get_attributes(const char* path, struct stat* status, fuse_file_info*) {
  *status = {};
  status->st_uid = geteuid();
  status->st_gid = getegid();
  proc::entry_info info;
  const bool is_top = *tree_path(path) == '\0';
  if (!is_top && !proc::stat(tree_path(path), &info)) return -ENOENT;
  if (is_top || info.directory) {
    status->st_mode = directory_mode;
    status->st_nlink = directory_links;
  } else {
    status->st_mode = static_cast<mode_t>(S_IFREG | info.mode);
    status->st_nlink = 1;
  }
  return 0;
}

int read_directory(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
                   fuse_readdir_flags) {
  constexpr auto plain = static_cast<fuse_fill_dir_flags>(0);
  for (const char* name : {".", ".."})
    fill(buffer, name, nullptr, 0, plain);
  for (const proc::entry_info& entry : proc::list(tree_path(path))) {
    fill(buffer, entry.name.c_str(), nullptr, 0, plain);
  }
  return 0;
}

int open_control_file(const char* path, fuse_file_info* info) {
  int error = 0;
  auto file = proc::open_file::open(tree_path(path), &error);
  if (!file) return error;
  info->fh = reinterpret_cast<std::uintptr_t>(file.get());
  info->direct_io = 1;
  files_of_mount().insert(std::move(file));
  return 0;
}

int read_control_file(const char*, char* buffer, std::size_t count, off_t position,
                      fuse_file_info* info) {
  return static_cast<int>(file_of(info)->read_at(buffer, count, position));
}

int write_control_file(const char*, const char* buffer, std::size_t count, off_t,
                       fuse_file_info* info) {
  return static_cast<int>(file_of(info)->write(buffer, count));
}

/// Opening for writing from a shell cuts a file to nothing first; there is nothing to cut.
int truncate_control_file(const char*, off_t, fuse_file_info*) {
  return 0;
}

int release_control_file(const char*, fuse_file_info* info) {
  open_files& files = files_of_mount();
  for (auto file = files.begin(); file != files.end(); ++file) {
    if (file->get() != file_of(info)) continue;
    files.erase(file);
    break;
  }
  return 0;
}

fuse_operations make_operations() {
  fuse_operations operations{};
  operations.init = start;
  operations.getattr = get_attributes;
  operations.readdir = read_directory;
  operations.open = open_control_file;
  operations.read = read_control_file;
  operations.write = write_control_file;
  operations.truncate = truncate_control_file;
  operations.release = release_control_file;
  return operations;
}

const fuse_operations operations = make_operations();

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

}  // namespace

struct control_mount::state {
  explicit state(const std::string& path) : point(path) {}
  ~state();
  state(const state&) = delete;
  state& operator=(const state&) = delete;

  [[nodiscard]] bool mount();
  void serve(unsigned processor);

  mount_point point;
  std::string reason;
  open_files files;
  fuse* handle = nullptr;  ///< null: not mounted
  ports::owned_fd stop;
  std::thread thread;
};

control_mount::state::~state() {
  if (handle == nullptr) return;
  fuse_unmount(handle);
  fuse_destroy(handle);
}

bool control_mount::state::mount() {
  reason = why_missing();
  if (!reason.empty()) return false;
  stop = ports::owned_fd{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  if (!stop) {
    reason = std::strerror(errno);
    return false;
  }
  // Only root may let others in without the host's leave.
  const std::string options = geteuid() == 0 ? "default_permissions,fsname=tarvelo,allow_other"
                                             : "default_permissions,fsname=tarvelo";
  fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
  for (const char* text : {"tarvelo", "-o", options.c_str()})
    fuse_opt_add_arg(&arguments, text);
  last_message.clear();
  fuse_set_log_func(keep_message);
  handle = fuse_new(&arguments, &operations, sizeof operations, &files);
  fuse_opt_free_args(&arguments);
  if (handle != nullptr && fuse_mount(handle, point.path().c_str()) != 0) {
    fuse_destroy(handle);
    handle = nullptr;
  }
  if (handle == nullptr) {
    reason = last_message.empty() ? "cannot be mounted" : last_message;
    return false;
  }
  return true;
}

/// The library's own loop cannot be woken up while a user keeps the unmounted tree busy.
void control_mount::state::serve(unsigned processor) {
  hosted::set_processor(processor);
  fuse_session* session = fuse_get_session(handle);
  fuse_buf buffer{};
  while (fuse_session_exited(session) == 0) {
    pollfd events[] = {{fuse_session_fd(session), POLLIN, 0}, {stop.get(), POLLIN, 0}};
    if (poll(events, std::size(events), -1) < 0 && errno != EINTR) break;
    if (events[1].revents != 0) break;
    if (events[0].revents == 0) continue;
    const int got = fuse_session_receive_buf(session, &buffer);
    if (got == -EINTR || got == -EAGAIN) continue;
    if (got <= 0) break;
    fuse_session_process_buf(session, &buffer);
  }
  std::free(buffer.mem);
}

control_mount::control_mount(const std::string& path, unsigned processor)
    : state_(std::make_unique<state>(path)) {
  if (!state_->mount()) return;
  state_->thread = std::thread([s = state_.get(), processor] { s->serve(processor); });
}

control_mount::~control_mount() {
  if (!state_->thread.joinable()) return;
  (void)eventfd_write(state_->stop.get(), 1);
  state_->thread.join();
}

bool control_mount::available() const noexcept {
  return state_->handle != nullptr;
}

const std::string& control_mount::reason() const noexcept {
  return state_->reason;
}

}  // namespace tarvelo::app
