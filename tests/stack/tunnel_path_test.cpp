// SPDX-License-Identifier: GPL-2.0-only
//
// A connection over every kind of uplink, first on the slow path and then on the fast one: the same
// frames but for the inner time to live, the same numbers going on, the same counts.
#include "tests/stack/tunnel_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

constexpr line_kind lines[] = {line_kind::ethernet, line_kind::vlan, line_kind::pppoe,
                               line_kind::pppoe_on_vlan};

constexpr uplink_options session = {.name = "pppoe", .kind = uplink_kind::line};

constexpr uplink_options tunnels[] = {
    {.name = "l2tp", .kind = uplink_kind::l2tp},
    {.name = "l2tp with numbers",
     .kind = uplink_kind::l2tp,
     .send_seq = true,
     .received_word = 0x0802,
     .received = ppp_framing::without_address},
    {.name = "l2tp with length",
     .kind = uplink_kind::l2tp,
     .received_word = 0x4002,
     .received = ppp_framing::compressed},
    {.name = "l2tp with both",
     .kind = uplink_kind::l2tp,
     .send_seq = true,
     .received_word = 0x4802,
     .received = ppp_framing::compressed_address},
    {.name = "pptp", .kind = uplink_kind::pptp},
    {.name = "pptp, one byte of protocol",
     .kind = uplink_kind::pptp,
     .compress_protocol = true,
     .received = ppp_framing::without_address,
     .sent = ppp_framing::compressed_address},
    {.name = "pptp without address",
     .kind = uplink_kind::pptp,
     .omit_address_control = true,
     .received = ppp_framing::compressed_address,
     .sent = ppp_framing::without_address},
    {.name = "pptp, shortest",
     .kind = uplink_kind::pptp,
     .compress_protocol = true,
     .omit_address_control = true,
     .received = ppp_framing::compressed,
     .sent = ppp_framing::compressed},
};

class tunnel_path_test : public tunnel_test {
 protected:
  void expect_both_paths(line_kind line, const uplink_options& options) {
    SCOPED_TRACE(std::string(options.name) + " on line " + std::to_string(static_cast<int>(line)));
    start_uplink(line, options);
    expect_exchange(receive_verdict::slow, slow_ttl);
    expect_exchange(receive_verdict::slow, slow_ttl);
    EXPECT_EQ(router->statistics().connections, 1U) << "the outer packets are not tracked";
    // Tracked before the module came, a connection stays slow: another begins.
    start_uplink(line, options);
    load_module();
    carry_to_fast_path();
    expect_exchange(receive_verdict::fast, fast_ttl);
    expect_exchange(receive_verdict::fast, fast_ttl);
  }
};

TEST_F(tunnel_path_test, pppoe_sessions_send_the_same_frames_on_both_paths) {
  expect_both_paths(line_kind::pppoe, session);
  expect_both_paths(line_kind::pppoe_on_vlan, session);
}

TEST_F(tunnel_path_test, tunnels_send_the_same_frames_on_both_paths_over_every_line) {
  for (const uplink_options& tunnel : tunnels) {
    for (const line_kind line : lines)
      expect_both_paths(line, tunnel);
  }
}

TEST_F(tunnel_path_test, both_paths_count_on_the_interface) {
  constexpr u64 packets = 25 + 2;
  const std::pair<line_kind, uplink_options> rows[] = {
      {line_kind::pppoe, session},
      {line_kind::ethernet, tunnels[0]},
      {line_kind::vlan, tunnels[4]},
  };
  for (const auto& [line, options] : rows) {
    SCOPED_TRACE(options.name);
    start_uplink(line, options);
    load_module();
    carry_to_fast_path();
    expect_exchange(receive_verdict::fast, fast_ttl);
    expect_exchange(receive_verdict::fast, fast_ttl);
    const rtnl_link_stats64 counted = dev_stats(device(uplink_device(options)));
    EXPECT_EQ(counted.tx_packets, packets);
    EXPECT_EQ(counted.rx_packets, packets);
    EXPECT_EQ(counted.tx_dropped + counted.rx_dropped, 0U);
  }
}

TEST_F(tunnel_path_test, connections_leave_the_fast_path_with_their_interface_and_come_back) {
  const std::pair<line_kind, uplink_options> rows[] = {
      {line_kind::pppoe_on_vlan, session},
      {line_kind::ethernet, tunnels[1]},
      {line_kind::pppoe, tunnels[0]},
      {line_kind::vlan, tunnels[5]},
  };
  for (const auto& [line, options] : rows) {
    for (const char* going : {uplink_device(options), "wan0"}) {
      SCOPED_TRACE(std::string(options.name) + " without " + going);
      start_uplink(line, options);
      load_module();
      carry_to_fast_path();
      router->set_link(device(going), false);
      EXPECT_EQ(receive("lan0", outward(on_lan_in(), sent_ttl)), receive_verdict::slow);
      EXPECT_TRUE(sent_on("wan0").empty());
      EXPECT_EQ(icmp_of(only_frame_on("lan0")).type, wire::icmp_type::unreachable);
      EXPECT_EQ(receive("wan0", inward(peer->sends(), sent_ttl)), receive_verdict::dropped);

      router->set_link(device(going), true);
      carry_to_fast_path();
      EXPECT_EQ(receive("lan0", outward(on_lan_in(), sent_ttl)), receive_verdict::fast);
      EXPECT_EQ(receive("wan0", inward(peer->sends(), sent_ttl)), receive_verdict::fast);
    }
  }
}

TEST_F(tunnel_path_test, a_tunnels_connections_follow_the_gateway_to_another_address) {
  start_uplink(line_kind::ethernet, tunnels[0]);
  router.reset();
  config.neighbours.erase(config.neighbours.begin());
  start();
  load_module();
  const char* other_mac = "02:00:00:00:02:22";
  const auto announce = [&](const char* mac) {
    receive("wan0",
            packet()
                .eth(wan_mac, mac)
                .arp(wire::arp_op::request, mac, gateway, "00:00:00:00:00:00", wan_address));
    static_cast<void>(sent_on("wan0"));
  };
  announce(gateway_mac);
  carry_to_fast_path();
  EXPECT_EQ(receive("lan0", outward(on_lan_in(), sent_ttl)), receive_verdict::fast);
  EXPECT_EQ(mac_text(eth_of(only_frame_on("wan0")).h_dest), gateway_mac);
  announce(other_mac);
  for (const receive_verdict how : {receive_verdict::slow, receive_verdict::fast}) {
    EXPECT_EQ(receive("lan0", outward(on_lan_in(), sent_ttl)), how);
    EXPECT_EQ(mac_text(eth_of(only_frame_on("wan0")).h_dest), other_mac);
  }
}

// The module sends such packets by the interface's driver, for it does not know how to wrap them.
TEST_F(tunnel_path_test, packets_of_a_raw_device_are_wrapped_on_both_paths) {
  const std::pair<line_kind, uplink_options> rows[] = {{line_kind::pppoe, session},
                                                       {line_kind::vlan, tunnels[0]},
                                                       {line_kind::ethernet, tunnels[4]}};
  for (const auto& [line, options] : rows) {
    SCOPED_TRACE(options.name);
    start_uplink(line, options);
    router.reset();
    config.devices.push_back(three_device_config().devices.back());
    start();
    load_module();
    const auto inside = [](packet frame, u8 ttl) {
      return frame.ipv4(tunnel_peer, server).tos(outward_tos).ttl(ttl).udp(4000, 53).payload(40);
    };
    for (unsigned i = 0; i < 25; ++i) {
      const receive_verdict how = receive("tun0", inside(packet(), sent_ttl));
      EXPECT_FRAME_EQ(
          only_frame_on("wan0"),
          inside(peer->expects(0), how == receive_verdict::fast ? fast_ttl : slow_ttl).build());
    }
    EXPECT_EQ(receive("tun0", inside(packet(), sent_ttl)), receive_verdict::fast);
    EXPECT_FRAME_EQ(only_frame_on("wan0"), inside(peer->expects(0), fast_ttl).build());
    EXPECT_EQ(dev_stats(device(uplink_device(options))).tx_packets, 26U);
  }
}

// Hosts behind a session of their own on the inside. Out of such a session the module builds
// tunnels only where these do not run over another session.
TEST_F(tunnel_path_test, packets_go_from_one_session_into_another) {
  constexpr u16 inside_sid = 0x0777;
  constexpr const char* caller = "10.20.0.2";
  constexpr auto fast = receive_verdict::fast;
  const struct {
    line_kind line;
    uplink_options options;
    receive_verdict outward;
  } rows[] = {
      {line_kind::pppoe, session, fast},
      {line_kind::pppoe_on_vlan, session, fast},
      {line_kind::ethernet, tunnels[1], fast},
      {line_kind::vlan, tunnels[4], fast},
      {line_kind::pppoe, tunnels[0], receive_verdict::slow},
      {line_kind::pppoe_on_vlan, tunnels[7], receive_verdict::slow},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.options.name) + std::to_string(static_cast<int>(row.line)));
    start_uplink(row.line, row.options);
    router.reset();
    stack::device_config inside;
    inside.name = "ppp9";
    inside.link = stack::pppoe_link{"lan0", inside_sid, config_mac(host_mac)};
    inside.addresses = {prefix_of("10.20.0.1", 32)};
    inside.peer = ip4(caller);
    config.devices.push_back(inside);
    start();
    load_module();
    const auto out = [](packet frame, u8 ttl) {
      return frame.ipv4(caller, server).tos(outward_tos).ttl(ttl).udp(4000, 53).payload(40);
    };
    const auto back = [](packet frame, u8 ttl) {
      return frame.ipv4(server, caller).ttl(ttl).udp(53, 4000).payload(60);
    };
    // A tag shows the contents' priority where one session follows on the other.
    const u8 priority =
        row.line == line_kind::pppoe || row.line == line_kind::pppoe_on_vlan ? outward_priority : 0;
    const packet lan_in = packet().eth(lan_mac, host_mac).pppoe(inside_sid);
    const packet lan_out = packet().eth(host_mac, lan_mac).pppoe(inside_sid);
    const auto exchange = [&](receive_verdict outward_how, receive_verdict back_how) {
      const u8 out_ttl = outward_how == fast ? fast_ttl : slow_ttl;
      const u8 back_ttl = back_how == fast ? fast_ttl : slow_ttl;
      EXPECT_EQ(receive("lan0", out(lan_in, sent_ttl)), outward_how);
      EXPECT_FRAME_EQ(only_frame_on("wan0"), out(peer->expects(priority), out_ttl).build());
      EXPECT_EQ(receive("wan0", back(peer->sends(), sent_ttl)), back_how);
      EXPECT_FRAME_EQ(only_frame_on("lan0"), back(lan_out, back_ttl).build());
    };
    for (unsigned i = 0; i < 2; ++i)
      exchange(receive_verdict::slow, receive_verdict::slow);
    for (unsigned i = 0; i < 23; ++i) {
      receive("lan0", out(lan_in, sent_ttl));
      static_cast<void>(peer->expects());
      receive("wan0", back(peer->sends(), sent_ttl));
    }
    static_cast<void>(sent_on("lan0"));
    static_cast<void>(sent_on("wan0"));
    exchange(row.outward, fast);
  }
}

TEST_F(tunnel_path_test, a_router_ends_with_its_tunnels_in_the_modules_tables) {
  start_uplink(line_kind::pppoe, tunnels[1]);
  load_module();
  carry_to_fast_path();
  router.reset();
}

}  // namespace
}  // namespace tarvelo::test
