// SPDX-License-Identifier: GPL-2.0-only
//
// The router: the network stack that owns the devices, forwards packets, tracks and translates
// connections, and offers every received frame to the fast path first.
//
// There is one router at a time: the kernel's tables are global. receive() and the kernel's timers
// run in softirq context on any processor; the fast path runs in all of them at once, everything
// else under the one lock of the stack. Construction, destruction and the other calls are process
// context.
#pragma once

#include <memory>
#include <stdexcept>
#include <string_view>

#include "kernel/netdevice.h"
#include "kernel/skbuff.h"
#include "stack/config.h"

namespace tarvelo::stack {

/// A router that cannot be built from a configuration; what() says what and why, in one line.
class setup_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What became of a received frame.
enum class receive_verdict : u8 {
  fast,     ///< the module took it
  slow,     ///< the stack forwarded, answered, delivered or queued it
  dropped,  ///< discarded, with nothing sent on its account
};

struct router_statistics {
  u64 offered;         ///< frames offered to the module
  u64 fast;            ///< of these, taken
  u64 slow_forwarded;  ///< packets forwarded by the stack itself
  u64 dropped;
  u64 connections;  ///< tracked now
  u64 connections_made;
  u64 connections_refused;  ///< the table was full
  u64 neighbours_refused;
  u64 reassembly_refused;
  u64 icmp_errors_sent;
};

class router {
 public:
  /// Builds all devices, routes and rules and brings the devices up. `port_ops` sends what leaves
  /// by the ports and raw-IP devices; a device's `priv` is null and the caller's to set. Throws
  /// setup_error, leaving nothing behind.
  router(const router_config& config, const net_device_ops* port_ops);
  /// Takes everything down again; every buffer is returned. No receive() may be running.
  ~router();
  router(const router&) = delete;
  router& operator=(const router&) = delete;

  /// Takes a received frame: `dev` set, data at the Ethernet header (at the IP header for a raw-IP
  /// device), linear, unshared, at least 128 bytes of headroom, the tag in line and `priority` its
  /// 3 bits, checksums complete. Softirq context.
  receive_verdict receive(sk_buff* skb);

  [[nodiscard]] net_device* device(std::string_view name) const;
  /// The link of a port has come up or gone down, and with it the devices stacked on the port.
  void set_link(net_device* dev, bool up);
  [[nodiscard]] router_statistics statistics() const;

 private:
  struct state;
  std::unique_ptr<state> state_;
};

}  // namespace tarvelo::stack
