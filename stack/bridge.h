// SPDX-License-Identifier: GPL-2.0-only
//
// A learning bridge (IEEE 802.1D without its spanning tree): which hosts are behind which port, and
// what becomes of a frame that comes in on one. Ports forward from the moment their link is up.
//
// The database is the kernel's; what changes it is all here, under the stack's lock, so that the
// module hears of the changes in their order. A host that is not heard of for bridge_ageing_time is
// forgotten. The fast path carries a host's frames past the bridge: those that it bridges are noted
// in the module's cache, which is looked at before a host is forgotten, and those that it routes
// are noted by the offer (see bridge_may_offer()).
//
// When a host moves or is forgotten, the connections that have used the bridge device are taken off
// the fast path: their entries may name the port that the host was behind.
//
// The module holds a connection for older than its host when the clock's 32 bits cannot tell any
// more. So that it never comes to that, all hosts are reported as new every bridge_renewal_time.
#pragma once

#include "kernel/if_bridge.h"
#include "kernel/jiffies.h"
#include "kernel/skbuff.h"
#include "kernel/timer.h"

namespace tarvelo::stack {

inline constexpr u32 bridge_ageing_time = 300 * HZ;
/// Between two looks at the ages, jiffies: a host is forgotten that much late at the most.
inline constexpr u32 bridge_ageing_step = 10 * HZ;
/// Half of the 2^31 jiffies within which the module can compare two instants.
inline constexpr u32 bridge_renewal_time = 1U << 30;

/// What became of a frame that came in on a port.
enum class bridge_decision : u8 {
  up,         ///< goes on at the bridge device; the buffer stays the caller's
  flooded,    ///< the same, and copies have gone out
  forwarded,  ///< the buffer is gone
  dropped,    ///< the buffer stays the caller's
};

class bridge {
 public:
  /// Makes the bridge of a device that is not registered yet; at most `host_limit` hosts are known
  /// at one time. Throws setup_error without memory. Process context.
  bridge(net_device* dev, u32 host_limit);
  /// Forgets everything, telling the module, and frees the ports. Process context, stack's lock not
  /// held, no frame under way.
  ~bridge();
  bridge(const bridge&) = delete;
  bridge& operator=(const bridge&) = delete;

  /// Makes a device a port; null without memory. Down until set_port_state(). Process context.
  [[nodiscard]] net_bridge_port* add_port(net_device* dev);
  /// Enters the bridge device's own address. False without memory.
  [[nodiscard]] bool add_own_address();

  /// Takes a frame that has come in on a port, `data` at its Ethernet header. Stack's lock.
  [[nodiscard]] bridge_decision input(sk_buff* skb, net_bridge_port* port);

  /// Forgets the hosts behind a port that has been disabled. Stack's lock.
  void forget_port(net_bridge_port* port);
  /// Tells a module that has just come of every host. Stack's lock.
  void report_all();

  [[nodiscard]] net_device* device() const noexcept { return br_->dev; }

 private:
  static void age(unsigned long self);
  [[nodiscard]] bool learn(net_bridge_port* port, const u8* sender);
  void start_ageing();
  void renew_reports();
  void hosts_have_gone(u32 count);
  [[nodiscard]] bool knows_hosts() const noexcept { return read_once(br_->fdb_count) != 0; }

  net_bridge* br_;
  timer_list ageing_{};    ///< runs while a host is known
  u32 renewed_ = jiffies;  ///< when all hosts were last reported as new
};

/// True for the MAC address of the port's bridge, or of the port itself. No lock.
[[nodiscard]] bool is_for_bridge(const u8* mac, const net_bridge_port* port) noexcept;

/// True when a frame that has come in on a bridge's port may be offered to the fast path: it goes
/// from a host that is known behind this port to the bridge itself, to its port, or (unless a tag
/// that is no VLAN device's makes it a mere passenger) to a host behind another port that the
/// module knows. A sender that is new or has moved has to be learnt first. RCU read side, no lock.
[[nodiscard]] bool bridge_may_offer(const sk_buff* skb, const net_bridge_port* port,
                                    bool foreign_tag) noexcept;

}  // namespace tarvelo::stack
