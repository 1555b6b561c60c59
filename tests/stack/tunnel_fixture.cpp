// SPDX-License-Identifier: GPL-2.0-only
#include "tests/stack/tunnel_fixture.h"

#include "module/core/init.h"

namespace tarvelo::test {

namespace {

constexpr u16 line_vid = 7;
constexpr u16 l2tp_port = 1701;
/// Reports after which the module takes a connection, and some more.
constexpr unsigned rounds_to_ripen = 25;

bool has_vlan(line_kind line) {
  return line == line_kind::vlan || line == line_kind::pppoe_on_vlan;
}
bool has_pppoe(line_kind line) {
  return line == line_kind::pppoe || line == line_kind::pppoe_on_vlan;
}

stack::device_config device_of(const char* name, stack::link_config link) {
  stack::device_config config;
  config.name = name;
  config.link = std::move(link);
  return config;
}

stack::device_config tunnel_of(const uplink_options& options) {
  if (options.kind == uplink_kind::l2tp) {
    return device_of(
        "ppp1", stack::l2tp_link{ip4(wan_address), ip4(gateway), l2tp_port, l2tp_port, own_tunnel,
                                 peer_tunnel, own_session, peer_session, options.send_seq});
  }
  return device_of("ppp1",
                   stack::pptp_link{ip4(wan_address), ip4(gateway), own_call, peer_call,
                                    options.compress_protocol, options.omit_address_control});
}

}  // namespace

const char* uplink_device(const uplink_options& options) {
  return options.kind == uplink_kind::line ? "ppp0" : "ppp1";
}

stack::router_config uplink_config(line_kind line, const uplink_options& options) {
  stack::router_config config;
  stack::device_config lan = device_of("lan0", stack::port_link{"lan0", config_mac(lan_mac)});
  lan.addresses = {prefix_of(lan_address, 24)};
  config.devices = {lan, device_of("wan0", stack::port_link{"wan0", config_mac(wan_mac)})};
  if (has_vlan(line)) {
    config.devices.push_back(device_of("wan0.7", stack::vlan_link{"wan0", line_vid}));
  }
  if (has_pppoe(line)) {
    const std::string parent = config.devices.back().name;
    config.devices.push_back(
        device_of("ppp0", stack::pppoe_link{parent, pppoe_sid, config_mac(gateway_mac)}));
    config.devices.back().addresses = {prefix_of(wan_address, 32)};
    config.devices.back().peer = ip4(gateway);
  } else {
    config.devices.back().addresses = {prefix_of(wan_address, 24)};
    config.neighbours = {{config.devices.back().name, ip4(gateway), config_mac(gateway_mac)}};
  }
  config.neighbours.push_back({"lan0", ip4(host), config_mac(host_mac)});
  if (options.kind != uplink_kind::line) config.devices.push_back(tunnel_of(options));
  config.routes = {{prefix_of("198.51.100.0", 24), std::nullopt, uplink_device(options)}};
  return config;
}

packet line_header(line_kind line, std::string_view to, std::string_view from, u8 priority) {
  packet frame;
  frame.eth(to, from);
  if (has_vlan(line)) frame.vlan(line_vid, priority);
  if (has_pppoe(line)) frame.pppoe(pppoe_sid);
  return frame;
}

packet far_end::sends() {
  packet frame = from_peer();
  if (options_.kind == uplink_kind::line) return frame;
  frame.ipv4(gateway, wan_address).ttl(60);
  if (options_.kind == uplink_kind::l2tp) {
    return frame.udp(l2tp_port, l2tp_port)
        .l2tp(options_.received_word, own_tunnel, own_session, static_cast<u16>(sent_++))
        .ppp(options_.received);
  }
  unacknowledged_ = sent_;
  return frame.gre(own_call, sent_++, expected_).ppp(options_.received);
}

packet far_end::expects() {
  const bool tunnel_over_session = has_pppoe(line_) && options_.kind != uplink_kind::line;
  return expects(tunnel_over_session ? outward_priority : 0);
}

packet far_end::expects(u8 priority) {
  packet frame = line_header(line_, gateway_mac, wan_mac, priority);
  if (options_.kind == uplink_kind::line) return frame;
  frame.ipv4(wan_address, gateway).ttl(64).dont_fragment();
  if (options_.kind == uplink_kind::l2tp) {
    const u16 word = options_.send_seq ? 0x0802 : 0x0002;
    return frame.udp(l2tp_port, l2tp_port)
        .no_checksum()
        .l2tp(word, peer_tunnel, peer_session, static_cast<u16>(expected_++))
        .ppp(options_.sent);
  }
  const std::optional<u32> acknowledged = unacknowledged_;
  unacknowledged_.reset();
  return frame.gre(peer_call, ++expected_, acknowledged).ppp(options_.sent);
}

void tunnel_test::start_uplink(line_kind line, const uplink_options& options) {
  module.reset();
  router.reset();
  config = uplink_config(line, options);
  peer.emplace(line, options);
  start();
}

void tunnel_test::load_module() {
  std::string error;
  module = loaded_module::load_linked(init_module, cleanup_module, &__this_module, &error);
  ASSERT_NE(module, nullptr) << error;
}

void tunnel_test::expect_exchange(stack::receive_verdict how, u8 ttl_after) {
  EXPECT_EQ(receive("lan0", outward(on_lan_in(), sent_ttl)), how);
  EXPECT_FRAME_EQ(only_frame_on("wan0"), outward(peer->expects(), ttl_after).build());
  EXPECT_EQ(receive("wan0", inward(peer->sends(), sent_ttl)), how);
  EXPECT_FRAME_EQ(only_frame_on("lan0"), inward(on_lan_out(), ttl_after).build());
}

void tunnel_test::carry_to_fast_path() {
  for (unsigned i = 0; i < rounds_to_ripen; ++i) {
    receive("lan0", outward(on_lan_in(), sent_ttl));
    static_cast<void>(peer->expects());
    receive("wan0", inward(peer->sends(), sent_ttl));
  }
  static_cast<void>(sent_on("lan0"));
  static_cast<void>(sent_on("wan0"));
}

}  // namespace tarvelo::test
