// SPDX-License-Identifier: GPL-2.0-only
//
// The module's scene with IPv6 beside it, and the reports of the IPv6 add:
//
//   host 2001:db8:1::2 --- lan [router] wan --- gateway 2001:db8:9::1 --- peer 2620::7
#pragma once

#include "kernel/route6.h"
#include "module/ipv6/table.h"
#include "tests/module/ppp_scene.h"

namespace tarvelo::test {

inline constexpr endpoint inside6 = {"2001:db8:1::2", 40000};
inline constexpr endpoint peer6 = {"2620::7", 443};

[[nodiscard]] nf_conntrack_tuple make_tuple6(u8 protocol, endpoint source, endpoint destination);
[[nodiscard]] flow_key_v6 key6(u8 protocol, endpoint source, endpoint destination);

/// A connection between two endpoints; IPv6 is not translated.
class tracked6 : public tracked_connection {
 public:
  tracked6(u8 protocol, endpoint client, endpoint server)
      : tracked_connection(make_tuple6(protocol, client, server),
                           make_tuple6(protocol, server, client)) {}
};

class scoped_route6 {
 public:
  /// `gateway` "::": on-link.
  scoped_route6(std::string_view prefix, u8 length, std::string_view gateway, net_device* dev,
                rt_class type = RTN_UNICAST);
  ~scoped_route6();
  scoped_route6(const scoped_route6&) = delete;
  scoped_route6& operator=(const scoped_route6&) = delete;

 private:
  wire::in6_addr prefix_;
  u8 length_;
};

class scoped_neighbour6 {
 public:
  scoped_neighbour6(std::string_view address, net_device* dev, std::string_view hardware_address,
                    u8 state = NUD_REACHABLE);
  ~scoped_neighbour6();
  scoped_neighbour6(const scoped_neighbour6&) = delete;
  scoped_neighbour6& operator=(const scoped_neighbour6&) = delete;

  [[nodiscard]] neighbour* get() const { return neigh_; }

 private:
  neighbour* neigh_;
};

/// A PPP interface with a PPPoE session, for IPv6.
class pppoe_line {
 public:
  pppoe_line(const char* name, net_device* below, u16 session, const char* peer_mac)
      : line_(ppp_interface::pppoe(name, below, session, peer_mac)),
        far_end_("::", line_->dev, "00:00:00:00:00:00", NUD_NOARP) {}

  operator net_device*() const { return line_->dev; }

 private:
  std::unique_ptr<ppp_interface> line_;
  scoped_neighbour6 far_end_;
};

/// One report to the IPv6 add. The route is looked up by the frame's destination.
struct report6 {
  bytes frame;
  nf_conn* ct;  ///< null: the buffer carries none
  ip_conntrack_info info;
  net_device* dev;
  net_device* rx_dev;
  u32 fast_flags = 0;
  u32 l4 = wire::ethernet_length + wire::ipv6_length;  ///< offset of the transport header
  bool routed = true;
};

/// Makes the call. Returns the buffer's `fast_flags` afterwards.
u32 make_report(const report6& r);

/// A packet with its layers down to the transport header, behind those of `link`; TCP carries ACK.
[[nodiscard]] packet packet6(packet link, u8 protocol, endpoint from, endpoint to);
/// The same with a fragment header that has `word` as its offset and flags, and nothing behind it.
[[nodiscard]] packet fragment6(packet link, u32 id, u16 word, endpoint from, endpoint to,
                               u8 protocol = wire::ip_protocol::udp);
[[nodiscard]] inline packet ethernet(const char* to, const char* from) {
  return packet().eth(to, from);
}

class ipv6_scene : public module_scene {
 protected:
  /// From the host to the peer, or back.
  [[nodiscard]] report6 outbound(const tracked_connection& ct, u8 protocol);
  [[nodiscard]] report6 inbound(const tracked_connection& ct, u8 protocol);

  static void ripen6(const report6& r) {
    for (int i = 0; i < ripe; ++i)
      make_report(r);
  }

  [[nodiscard]] static int count6() { return _vok_ipc_v6_count_get(kcih); }
  [[nodiscard]] static ipc_v6_entry* find6(u8 protocol, endpoint from, endpoint to);

  scoped_route6 inside_route6{"2001:db8:1::", 64, "::", lan};
  scoped_route6 default_route6{"::", 0, "2001:db8:9::1", wan};
  scoped_neighbour6 host6{"2001:db8:1::2", lan, host_mac};
  scoped_neighbour6 gateway6{"2001:db8:9::1", wan, gateway_mac};
};

}  // namespace tarvelo::test
