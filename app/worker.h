// SPDX-License-Identifier: GPL-2.0-only
//
// A packet worker: one thread that is one processor's softirq context. It takes batches of frames
// from its ports, gives them to the router, and sends what came of them. When its ports are empty
// it waits for them and uses no processor time.
//
// Started by the constructor, stopped and joined by the destructor.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

#include "app/port_set.h"
#include "ports/owned_fd.h"
#include "ports/port.h"
#include "stack/router.h"

namespace tarvelo::app {

class worker {
 public:
  /// Polls `mine`; sends on all of `ports`. `processor` is no other thread's.
  worker(unsigned processor, stack::router& router, std::vector<ports::port*> mine,
         port_set& ports);
  ~worker();
  worker(const worker&) = delete;
  worker& operator=(const worker&) = delete;

 private:
  void work(unsigned processor);
  [[nodiscard]] bool serve(ports::port& port, std::vector<sk_buff*>& batch);
  void wait_for_frames();

  stack::router& router_;
  std::vector<ports::port*> mine_;
  port_set& ports_;
  std::atomic<bool> stop_{false};
  ports::owned_fd wake_;
  std::thread thread_;  ///< last: it uses the others
};

}  // namespace tarvelo::app
