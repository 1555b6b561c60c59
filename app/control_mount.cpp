// SPDX-License-Identifier: GPL-2.0-only
#include "app/control_mount.h"

#define FUSE_USE_VERSION 314

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

#include "app/mount_keeper.h"
#include "app/thread.h"
#include "kernel/context.h"
#include "kernel/proc_tree.h"
#include "ports/owned_fd.h"

namespace tarvelo::app {

namespace {

constexpr nlink_t directory_links = 2;
constexpr mode_t directory_mode = S_IFDIR | 0555;

/// What users of the mount see and have. Only the serving thread uses it, and the owner after that
/// thread.
struct user_view {
  uid_t owner = geteuid();  ///< who has started the router: it may be somebody else by now
  gid_t group = getegid();
  std::set<std::unique_ptr<proc::open_file>> files;
};

user_view& view_of_mount() {
  return *static_cast<user_view*>(fuse_get_context()->private_data);
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
  status->st_uid = view_of_mount().owner;
  status->st_gid = view_of_mount().group;
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
  view_of_mount().files.insert(std::move(file));
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
  auto& files = view_of_mount().files;
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

}  // namespace

struct control_mount::state {
  explicit state(const std::string& path) : keeper(path) {}
  ~state();
  state(const state&) = delete;
  state& operator=(const state&) = delete;

  void connect();
  void serve(unsigned processor);

  mount_keeper keeper;
  std::string reason;
  user_view view;
  fuse* handle = nullptr;  ///< null: not mounted
  ports::owned_fd stop;
  std::thread thread;
};

control_mount::state::~state() {
  if (handle != nullptr) fuse_destroy(handle);
}

void control_mount::state::connect() {
  reason = keeper.reason();
  ports::owned_fd connection = keeper.take_connection();
  if (!connection) return;
  stop = ports::owned_fd{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  if (!stop) {
    reason = std::strerror(errno);
    return;
  }
  fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
  fuse_opt_add_arg(&arguments, "tarvelo");
  handle = fuse_new(&arguments, &operations, sizeof operations, &view);
  fuse_opt_free_args(&arguments);
  // The library's name for a connection that somebody else has mounted; it closes it as its own.
  const std::string mounted = fmt::format("/dev/fd/{}", connection.get());
  if (handle != nullptr && fuse_mount(handle, mounted.c_str()) == 0) {
    (void)connection.release();
    return;
  }
  if (handle != nullptr) fuse_destroy(handle);
  handle = nullptr;
  reason = "cannot be served";
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

control_mount::control_mount(const std::string& path) : state_(std::make_unique<state>(path)) {
  state_->connect();
}

void control_mount::serve(unsigned processor) {
  if (!available()) return;
  state_->thread = start_thread([s = state_.get(), processor] { s->serve(processor); });
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
