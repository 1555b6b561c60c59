// SPDX-License-Identifier: GPL-2.0-only
#include "app/run.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <thread>

#include "app/config.h"
#include "app/control_mount.h"
#include "app/device_statistics.h"
#include "app/held_log.h"
#include "app/port_set.h"
#include "app/privileges.h"
#include "app/router_host.h"
#include "app/timer_thread.h"
#include "app/worker.h"
#include "kernel/context.h"
#include "kernel/jiffies.h"

namespace tarvelo::app {

namespace {

/// Threads that have a processor number besides the workers: clock, control files, this one.
constexpr unsigned other_threads = 3;
constexpr int link_poll_ms = 1000;
constexpr unsigned polls_per_summary = 5;

/// The signals that end the command, as something to wait for. Blocked from its construction on in
/// this thread and in those started later.
class stop_signals {
 public:
  stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
      sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    fd_ = ports::owned_fd{signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK)};
    if (!fd_) throw std::system_error(errno, std::generic_category(), "signalfd");
  }

  /// True when one has come within the time.
  [[nodiscard]] bool wait(int milliseconds) const {
    pollfd event{fd_.get(), POLLIN, 0};
    return poll(&event, 1, milliseconds) > 0;
  }

 private:
  ports::owned_fd fd_;
};

unsigned worker_count(std::size_t ports) {
  const unsigned processors = std::max(1U, std::thread::hardware_concurrency());
  const unsigned most = std::min(processors, hosted::max_processors - other_threads);
  return static_cast<unsigned>(std::min<std::size_t>(most, ports));
}

std::string summary(const stack::router_statistics& s, u64 transmit_errors) {
  return fmt::format(
      "{} frames offered: {} fast, {} slow, {} dropped, {} not sent; {} connections, {} in all, "
      "{} refused",
      s.offered, s.fast, s.slow_forwarded, s.dropped, transmit_errors, s.connections,
      s.connections_made, s.connections_refused);
}

void watch(const stop_signals& stop, port_set& ports, stack::router& router) {
  const bool on_terminal = isatty(STDERR_FILENO) == 1;
  for (unsigned polls = 1; !stop.wait(link_poll_ms); ++polls) {
    ports.follow_links(router);
    if (!on_terminal || polls % polls_per_summary != 0) continue;
    fmt::print(stderr, "tarvelo: {}\n", summary(router.statistics(), ports.transmit_errors()));
  }
}

std::unique_ptr<control_mount> make_mount(const app_config& config) try {
  return std::make_unique<control_mount>(config.control.mount);
} catch (const input_error& error) {
  throw input_error(describe(config.file, config.places.control.of("mount")) + error.what());
}

/// The threads, for as long as they run.
void serve(const app_config& config, const stop_signals& stop, port_set& ports, router_host& host,
           std::unique_ptr<control_mount> mount, held_log& log) {
  const unsigned workers = worker_count(ports.size());
  const unsigned clock_processor = workers;
  const unsigned mount_processor = workers + 1;
  hosted::set_processor(workers + 2);

  // Gone when this returns: the module cannot unload while a user has one of its files open.
  const std::unique_ptr<control_mount> served = std::move(mount);
  served->serve(mount_processor);
  const timer_thread clock(clock_processor, ports);
  std::vector<std::unique_ptr<worker>> threads;
  for (unsigned i = 0; i < workers; ++i) {
    threads.push_back(std::make_unique<worker>(i, host.router(), ports.share(i, workers), ports));
  }
  log.release();
  if (served->available()) {
    fmt::print(stderr, "tarvelo: running; control files in {}\n", config.control.mount);
  } else {
    fmt::print(stderr, "tarvelo: running; no control files: {}\n", served->reason());
  }
  watch(stop, ports, host.router());
}

}  // namespace

int run(const run_options& options) {
  const app_config config = load_config(options.config);
  const stop_signals stop;
  kernel_clock::start_at(0);
  std::string last;
  held_log log;
  {
    port_set ports(config);
    auto mount = make_mount(config);
    auto module = open_module(options.module);
    drop_privileges();
    router_host host(config);
    ports.attach(host.router());
    host.load_module(std::move(module));
    serve(config, stop, ports, host, std::move(mount), log);
    last = summary(host.router().statistics(), ports.transmit_errors()) + "\n" +
           device_statistics_text(config.router, host.router());
    host.unload_module();
  }
  fmt::print("{}", last);
  return exit_status::good;
}

}  // namespace tarvelo::app
