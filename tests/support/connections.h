// SPDX-License-Identifier: GPL-2.0-only
//
// Kernel objects that a module test needs around a packet: tracked connections, routes and
// neighbours. Each class owns what it makes and takes it away again at its end.
#pragma once

#include <string_view>

#include "kernel/neighbour.h"
#include "kernel/nf_conntrack.h"
#include "kernel/route.h"
#include "tests/support/net_text.h"

namespace tarvelo::test {

struct endpoint {
  std::string_view address;
  u16 port;  ///< host order
};

/// One direction as its packets arrive.
[[nodiscard]] nf_conntrack_tuple make_tuple(u8 protocol, endpoint source, endpoint destination,
                                            ip_conntrack_dir dir = IP_CT_DIR_ORIGINAL);

/// A confirmed connection with a running timer, as the stack would keep it in its table. When a
/// module is loaded it has its extension record. Its end drops the table's reference; the last
/// reference to go reports the end to the module, as the stack does.
///
/// All instances share nf_ct_destroy, which the first one sets.
class tracked_connection {
 public:
  /// Both directions as their packets arrive: for source NAT the reply's destination is the public
  /// end.
  tracked_connection(const nf_conntrack_tuple& original, const nf_conntrack_tuple& reply);
  ~tracked_connection();
  tracked_connection(const tracked_connection&) = delete;
  tracked_connection& operator=(const tracked_connection&) = delete;

  [[nodiscard]] nf_conn* get() const { return ct_; }
  nf_conn* operator->() const { return ct_; }

  /// Attaches the connection to a buffer, with a reference.
  void attach(sk_buff* skb, ip_conntrack_info info) const;
  /// Drops the table's reference now.
  void drop();
  /// References that are held, the table's among them.
  [[nodiscard]] s32 references() const { return atomic_read(&ct_->ct_general.use); }

  /// Connections of this class that have been destroyed since the program began.
  [[nodiscard]] static u32 destroyed();

 private:
  nf_conn* ct_;
};

/// A route in the kernel's table. `gateway` "0.0.0.0": on-link.
class scoped_route {
 public:
  scoped_route(std::string_view prefix, u8 length, std::string_view gateway, net_device* dev,
               rt_class type = RTN_UNICAST);
  ~scoped_route();
  scoped_route(const scoped_route&) = delete;
  scoped_route& operator=(const scoped_route&) = delete;

 private:
  u32 prefix_;
  u8 length_;
};

/// An ARP entry.
class scoped_neighbour {
 public:
  scoped_neighbour(std::string_view address, net_device* dev, std::string_view hardware_address,
                   u8 state = NUD_REACHABLE);
  ~scoped_neighbour();
  scoped_neighbour(const scoped_neighbour&) = delete;
  scoped_neighbour& operator=(const scoped_neighbour&) = delete;

  [[nodiscard]] neighbour* get() const { return neigh_; }

 private:
  neighbour* neigh_;
};

}  // namespace tarvelo::test
