// SPDX-License-Identifier: GPL-2.0-only
//
// Connection tracking and network address translation, and the reports of both to the module.
//
// A packet passes pre_routing() when it has come in, then either local_in() or, routed,
// post_routing() before it goes out; each may rewrite it. All are called under the stack's lock,
// with `data` at the IP header, `network_header` and `transport_header` set, the header checked,
// the length cut to the packet's own, and never with a fragment. After each, header pointers must
// be derived anew.
//
// A new connection belongs to its first packet until that packet passes local_in() or
// post_routing(), which confirms it: only then is it in the table. So a packet that is dropped on
// its way leaves no connection behind.
//
// IPv6 connections are tracked in the same way and never translated. The tracker tells the families
// apart by `protocol`.
//
// Dropped are packets with a wrong checksum, a cut transport header or impossible flags, ICMP
// errors about no connection, and what can begin none. A TCP connection that is already going on
// may be picked up by a plain ACK, as after a restart of the router, unless it would have to be
// translated: which ports it had is lost. It must be heard from both sides before it is remembered
// for longer than minutes.
#pragma once

#include <functional>
#include <memory>

#include "kernel/nf_conntrack.h"
#include "kernel/skbuff.h"
#include "stack/config.h"

namespace tarvelo::stack {

enum class track_verdict : u8 {
  accept,
  drop,  ///< the caller frees the packet
};

struct conntrack_statistics {
  u64 connections;  ///< in the table now
  u64 made;
  u64 refused;         ///< the table was full
  u64 untranslatable;  ///< no port was free, or another connection has the same answers
};

class connection_tracker {
 public:
  /// Gives a device by its configured name; null is an error of the caller.
  using device_lookup = std::function<net_device*(const std::string& name)>;

  /// Takes the rules out of the configuration. At most one tracker exists at a time; it is what
  /// nf_ct_destroy calls. Throws setup_error.
  connection_tracker(const router_config& config, const device_lookup& devices);
  /// Ends all connections; process context, no packet under way.
  ~connection_tracker();
  connection_tracker(const connection_tracker&) = delete;
  connection_tracker& operator=(const connection_tracker&) = delete;

  /// A packet has come in on `skb->dev`, the layer-3 input device (also in `skb->rx_dev`), no route
  /// attached. Finds or makes its connection, translates its destination and reports it to the
  /// module at the pre-routing hook when this is the hook that translates it. May attach a route.
  [[nodiscard]] track_verdict pre_routing(sk_buff* skb);

  /// A packet is dropped before pre_routing() because its header cannot be trusted. The module,
  /// which leaves the header's checksum to the receiver, may have taken it for the end of its
  /// connection; that goes on, and is added anew.
  void lost_before_tracking(const sk_buff* skb);

  /// A packet is for the router itself.
  [[nodiscard]] track_verdict local_in(sk_buff* skb);

  /// A forwarded packet leaves by `skb->dev`, its route attached. Translates its source and reports
  /// it to the module at the post-routing hook when it has to.
  [[nodiscard]] track_verdict post_routing(sk_buff* skb);

  /// An ICMP error that the router has built about `about` (as it stands now, perhaps already
  /// translated): puts the quoted packet, and the error's destination, back to what the error's
  /// receiver knows. `error` has its `data` at the IP header and complete checksums, and keeps
  /// them.
  void translate_own_error(sk_buff* error, const sk_buff* about);

  /// Something on the way out by `dev` has changed: a route, a neighbour's hardware address, a
  /// host's place behind a bridge. Each connection that has used the device is taken off the fast
  /// path and may be added anew. With `gone` the device is about to be freed: it is also removed
  /// from every record that names it.
  void path_changed(const net_device* dev, bool gone);

  /// The module has come: connections made from now on get its extension record. Or is going: every
  /// record is taken back, and no more are made. Process context, stack's lock not held.
  void module_live();
  void module_going();

  [[nodiscard]] conntrack_statistics statistics() const;

 private:
  struct state;
  std::unique_ptr<state> state_;
};

}  // namespace tarvelo::stack
