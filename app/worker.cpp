// SPDX-License-Identifier: GPL-2.0-only
#include "app/worker.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

#include "app/thread.h"
#include "kernel/context.h"

namespace tarvelo::app {

namespace {

/// Room for a batch in which a super-frame has been cut up.
constexpr std::size_t usual_batch = 256;

ports::owned_fd make_event() {
  ports::owned_fd event{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  if (!event) throw std::system_error(errno, std::generic_category(), "eventfd");
  return event;
}

}  // namespace

worker::worker(unsigned processor, stack::router& router, std::vector<ports::port*> mine,
               port_set& ports)
    : router_(router),
      mine_(std::move(mine)),
      ports_(ports),
      wake_(make_event()),
      thread_(start_thread([this, processor] { work(processor); })) {}

worker::~worker() {
  stop_.store(true, std::memory_order_release);
  (void)eventfd_write(wake_.get(), 1);
  thread_.join();
}

void worker::work(unsigned processor) {
  hosted::set_processor(processor);
  std::vector<sk_buff*> batch;
  batch.reserve(usual_batch);
  while (!stop_.load(std::memory_order_acquire)) {
    bool any = false;
    for (ports::port* port : mine_)
      any |= serve(*port, batch);
    if (!any) wait_for_frames();
  }
}

bool worker::serve(ports::port& port, std::vector<sk_buff*>& batch) {
  const hosted::softirq_scope softirq;
  batch.clear();
  const bool any = port.receive(batch);
  for (sk_buff* skb : batch)
    (void)router_.receive(skb);
  if (any) ports_.flush();
  return any;
}

void worker::wait_for_frames() {
  std::vector<pollfd> events{{wake_.get(), POLLIN, 0}};
  for (const ports::port* port : mine_)
    events.push_back({port->poll_fd(), POLLIN, 0});
  (void)poll(events.data(), events.size(), -1);
}

}  // namespace tarvelo::app
