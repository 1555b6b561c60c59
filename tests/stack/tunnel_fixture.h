// SPDX-License-Identifier: GPL-2.0-only
//
// A router whose uplink is a PPP interface, in any of the ways that one can be reached:
//
//   host 192.168.1.2 --- lan0 [router] line --- peer 203.0.113.1
//
// The line is an Ethernet segment, a VLAN on it, or a PPPoE session on either; its address is
// 203.0.113.9. The uplink is the PPPoE session itself, or a tunnel to the peer, `ppp1`. Packets to
// `server` go by the uplink.
#pragma once

#include <optional>

#include "kernel/module_loader.h"
#include "tests/stack/router_fixture.h"

namespace tarvelo::test {

/// What the outermost headers of the uplink are.
enum class line_kind : u8 {
  ethernet,
  vlan,
  pppoe,
  pppoe_on_vlan,
};

enum class uplink_kind : u8 {
  line,  ///< no tunnel: the line must be a PPPoE session
  l2tp,
  pptp,
};

struct uplink_options {
  const char* name;
  uplink_kind kind;
  bool send_seq = false;              ///< L2TP
  bool compress_protocol = false;     ///< PPTP
  bool omit_address_control = false;  ///< PPTP
  u16 received_word = 0x0002;         ///< L2TP: first word of what the peer sends
  ppp_framing received = ppp_framing::full;
  ppp_framing sent = ppp_framing::full;
};

inline constexpr u16 pppoe_sid = 0x1234;
inline constexpr u16 own_tunnel = 10;
inline constexpr u16 peer_tunnel = 20;
inline constexpr u16 own_session = 30;
inline constexpr u16 peer_session = 40;
inline constexpr u16 own_call = 5;
inline constexpr u16 peer_call = 9;

/// The configuration of an uplink.
[[nodiscard]] stack::router_config uplink_config(line_kind line, const uplink_options& options);
/// The name of its device.
[[nodiscard]] const char* uplink_device(const uplink_options& options);
/// A frame on the line up to its IP header; the priority is that of its tag, if it has one.
[[nodiscard]] packet line_header(line_kind line, std::string_view to, std::string_view from,
                                 u8 priority = 0);

/// TOS of packets to the server, and the tag priority that goes with it. A tag shows it where the
/// packet's wrapping stays, or is that of a tunnel over a session.
inline constexpr u8 outward_tos = 0xA0;
inline constexpr u8 outward_priority = 5;

/// The other end of the uplink: writes what it sends, and what it expects, up to the inner IP
/// header, and keeps the numbers of both.
class far_end {
 public:
  far_end(line_kind line, const uplink_options& options) : line_(line), options_(options) {}

  /// The next packet to the router.
  [[nodiscard]] packet sends();
  /// The next packet from the router, of a connection from an untagged host.
  [[nodiscard]] packet expects();
  /// With that priority if the line is a VLAN.
  [[nodiscard]] packet expects(u8 priority);

 private:
  [[nodiscard]] packet from_peer() const { return line_header(line_, wan_mac, gateway_mac); }

  line_kind line_;
  uplink_options options_;
  u32 sent_ = 0;
  u32 expected_ = 0;
  std::optional<u32> unacknowledged_;
};

class tunnel_test : public router_test {
 protected:
  /// Starts a router; an earlier one ends.
  void start_uplink(line_kind line, const uplink_options& options);
  void load_module();

  /// Datagrams of one connection, from the IP header on.
  [[nodiscard]] static packet outward(packet frame, u8 ttl, std::size_t length = 40) {
    return frame.ipv4(host, server).tos(outward_tos).ttl(ttl).udp(4000, 53).payload(length);
  }
  [[nodiscard]] static packet inward(packet frame, u8 ttl, std::size_t length = 60) {
    return frame.ipv4(server, host).ttl(ttl).udp(53, 4000).payload(length);
  }
  [[nodiscard]] static packet on_lan_in() { return packet().eth(lan_mac, host_mac); }
  [[nodiscard]] static packet on_lan_out() { return packet().eth(host_mac, lan_mac); }

  /// Both ways once: how the packets go, and that they leave as they should.
  void expect_exchange(stack::receive_verdict how, u8 ttl_after);
  /// Both ways often enough that the module takes the connection.
  void carry_to_fast_path();

  std::optional<far_end> peer;
  /// Unloaded before the router goes.
  std::unique_ptr<loaded_module> module;
};

inline constexpr u8 sent_ttl = 64;
inline constexpr u8 slow_ttl = sent_ttl - 1;
inline constexpr u8 fast_ttl = sent_ttl;

}  // namespace tarvelo::test
