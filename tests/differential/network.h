// SPDX-License-Identifier: GPL-2.0-only
//
// A router with links of every kind, and a host at the far end of each: plain Ethernet, VLANs, two
// of them on one port, a bridge with untagged and tagged hosts, PPPoE sessions, L2TP and PPTP
// tunnels through each of these, and a link without Ethernet headers. What a link may be like
// (its MTU, the options of its tunnel, translation) is drawn by lot.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "stack/config.h"
#include "tests/differential/lots.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::test {

enum class link_kind : u8 {
  ethernet,
  vlan,
  bridged,
  pppoe,
  l2tp,
  pptp,
  rawip
};
inline constexpr const char* link_names[] = {"ethernet", "vlan", "bridged", "pppoe",
                                             "l2tp",     "pptp", "raw ip"};

/// A host and the link that leads to it.
struct far_end {
  link_kind kind{};
  std::string device;       ///< the router's, which has its address
  std::string port;         ///< where the host's frames come in
  std::size_t beneath = 0;  ///< the link that carries a session or tunnel
  u16 id = 0;               ///< of the VLAN, session or call
  u32 mtu = 0;
  bool masquerades = false;
  bool numbered = false;  ///< sent packets have sequence numbers
  std::string router_mac, mac;
  std::string router4, host4;
  std::string router6, host6;

  [[nodiscard]] bool is_tunnel() const {
    return kind == link_kind::l2tp || kind == link_kind::pptp;
  }
};

struct network {
  explicit network(small_random& random);

  /// What the host puts in front of an IP packet, as it reaches the router; in another session than
  /// its own, if one is given.
  [[nodiscard]] packet wrap(const far_end& from, bool ipv6, small_random& random,
                            std::optional<u16> session = std::nullopt);
  /// Makes a session or tunnel say that there is more in the frame.
  void promise_more(const far_end& from, bytes& frame, small_random& random) const;
  /// The Ethernet header and tag of a frame for that MAC address.
  [[nodiscard]] static packet wrap_ethernet(const far_end& from, const std::string& to,
                                            small_random& random);

  std::vector<far_end> ends;
  stack::router_config config;

 private:
  [[nodiscard]] std::size_t link_length(const far_end& end) const;
  [[nodiscard]] std::size_t index_of(const std::string& device) const;
  far_end& add(link_kind kind, std::string device, std::string port, u16 id = 0);
  far_end& add_ppp(link_kind kind, const std::string& device, const std::string& beneath,
                   u32 overhead, small_random& random);
  void add_bridge(u32 mtu);
  void add_session(const std::string& device, const std::string& beneath, small_random& random);
  void add_tunnel(link_kind kind, const std::string& device, const std::string& beneath,
                  small_random& random);
  void add_device(const far_end& end, stack::link_config link);

  u32 sent_ = 0;  ///< numbered packets of all hosts so far
};

}  // namespace tarvelo::test
