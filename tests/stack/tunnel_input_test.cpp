// SPDX-License-Identifier: GPL-2.0-only
//
// What PPP interfaces take and what they do not: sessions of others, broken and cut frames, sizes.
#include "kernel/fast_path.h"
#include "kernel/ppp_channel.h"
#include "tests/stack/tunnel_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

constexpr uplink_options session = {.name = "pppoe", .kind = uplink_kind::line};
constexpr uplink_options l2tp = {.name = "l2tp", .kind = uplink_kind::l2tp};
constexpr uplink_options pptp = {.name = "pptp", .kind = uplink_kind::pptp};
constexpr uplink_options numbered_l2tp = {.name = "l2tp with length and numbers",
                                          .kind = uplink_kind::l2tp,
                                          .send_seq = true,
                                          .received_word = 0x4802};

class tunnel_input_test : public tunnel_test {
 protected:
  struct row {
    const char* name;
    packet frame;
  };

  /// Each is dropped, and neither forwarded nor answered.
  void expect_dropped(std::span<const row> rows) {
    for (const row& one : rows) {
      SCOPED_TRACE(one.name);
      EXPECT_EQ(receive("wan0", one.frame), receive_verdict::dropped);
      EXPECT_TRUE(sent_on("lan0").empty());
      EXPECT_TRUE(sent_on("wan0").empty());
    }
  }
  void expect_taken(const packet& frame, std::size_t length = 60) {
    EXPECT_EQ(receive("wan0", frame), receive_verdict::slow);
    EXPECT_FRAME_EQ(only_frame_on("lan0"), inward(on_lan_out(), slow_ttl, length).build());
  }
  template <typename Params>
  [[nodiscard]] const Params& params_of(const char* name) const {
    ppp_conn_info info{};
    EXPECT_EQ(ppp_get_conn_pkt_info(device(name), &info), 0);
    return *static_cast<const Params*>(ppp_channel_params(info.chan));
  }
};

TEST_F(tunnel_input_test, takes_only_frames_of_its_pppoe_session) {
  start_uplink(line_kind::pppoe, session);
  const auto frame = [](const char* from, u16 sid) {
    return packet().eth(wan_mac, from).pppoe(sid);
  };
  packet discovery_code = inward(frame(gateway_mac, pppoe_sid), sent_ttl);
  bytes wrong_code = discovery_code.build();
  wrong_code[wire::ethernet_length + 1] = 0xA7;
  bytes wrong_version = discovery_code.build();
  wrong_version[wire::ethernet_length] = 0x21;
  const row rows[] = {
      {"another session", inward(frame(gateway_mac, pppoe_sid + 1), sent_ttl)},
      {"another sender", inward(frame("02:00:00:00:02:03", pppoe_sid), sent_ttl)},
      {"LCP", frame(gateway_mac, pppoe_sid).type(0xC021).payload(20)},
      {"in a VLAN", inward(packet().eth(wan_mac, gateway_mac).vlan(7).pppoe(pppoe_sid), sent_ttl)},
      {"to everyone", inward(packet().eth(everyone_mac, gateway_mac).pppoe(pppoe_sid), sent_ttl)},
  };
  expect_dropped(rows);
  EXPECT_EQ(receive("wan0", wrong_code), receive_verdict::dropped);
  EXPECT_EQ(receive("wan0", wrong_version), receive_verdict::dropped);
  expect_taken(inward(frame(gateway_mac, pppoe_sid), sent_ttl));
  expect_taken(inward(frame(gateway_mac, pppoe_sid), sent_ttl, 1).pad_to(60), 1);
}

TEST_F(tunnel_input_test, takes_only_messages_of_its_l2tp_session) {
  start_uplink(line_kind::ethernet, l2tp);
  const auto datagram = [](const char* from, u16 source, u16 destination) {
    return packet().eth(wan_mac, gateway_mac).ipv4(from, wan_address).udp(source, destination);
  };
  const auto message = [&](u16 word, u16 tunnel, u16 id) {
    return inward(datagram(gateway, 1701, 1701).l2tp(word, tunnel, id).ppp(), sent_ttl);
  };
  const row rows[] = {
      {"another tunnel", message(0x0002, own_tunnel + 1, own_session)},
      {"another session", message(0x0002, own_tunnel, own_session + 1)},
      {"the peer's ids", message(0x0002, peer_tunnel, peer_session)},
      {"control", message(0xC802, own_tunnel, own_session)},
      {"offset", message(0x0202, own_tunnel, own_session)},
      {"priority", message(0x0102, own_tunnel, own_session)},
      {"no version", message(0x0000, own_tunnel, own_session)},
      {"not PPP", inward(datagram(gateway, 1701, 1701)
                             .l2tp(0x0002, own_tunnel, own_session)
                             .raw(from_hex("FF05 0021")),
                         sent_ttl)},
      {"LCP", datagram(gateway, 1701, 1701)
                  .l2tp(0x0002, own_tunnel, own_session)
                  .raw(from_hex("FF03 C021 0901 0008 0000 0000"))},
      {"a wrong checksum", inward(datagram(gateway, 1701, 1701)
                                      .l4_checksum(0x1234)
                                      .l2tp(0x0002, own_tunnel, own_session)
                                      .ppp(),
                                  sent_ttl)},
  };
  expect_dropped(rows);
  expect_taken(message(0x0002, own_tunnel, own_session));
  // From elsewhere it is a datagram to a port where nobody listens.
  EXPECT_EQ(
      receive(
          "wan0",
          inward(datagram("203.0.113.50", 1701, 1701).l2tp(0x0002, own_tunnel, own_session).ppp(),
                 sent_ttl)),
      receive_verdict::slow);
  EXPECT_TRUE(sent_on("lan0").empty());
}

TEST_F(tunnel_input_test, takes_only_packets_of_its_pptp_call) {
  start_uplink(line_kind::ethernet, pptp);
  const auto outer = [](const char* from) {
    return packet().eth(wan_mac, gateway_mac).ipv4(from, wan_address);
  };
  const auto with_gre = [&](const char* header) {
    return inward(outer(gateway).type(47).raw(from_hex(header)).ppp(), sent_ttl);
  };
  // 92 bytes: PPP, IPv4 and UDP headers and 60 of payload.
  const row rows[] = {
      {"another call", inward(outer(gateway).gre(own_call + 1, 1).ppp(), sent_ttl)},
      {"the peer's call", inward(outer(gateway).gre(peer_call, 1).ppp(), sent_ttl)},
      {"version 0", with_gre("3000 880B 005C 0005 00000001")},
      {"another protocol", with_gre("3001 0800 005C 0005 00000001")},
      {"no key", with_gre("1001 880B 005C 0005 00000001")},
      {"checksum", with_gre("B001 880B 005C 0005 00000001")},
      {"payload too long", with_gre("3001 880B 005D 0005 00000001")},
      {"LCP", outer(gateway).gre(own_call, 1).raw(from_hex("FF03 C021 0901 0008 0000 0000"))},
      {"compressed data", outer(gateway).gre(own_call, 1).raw(from_hex("FD 9000 1122 3344 5566"))},
  };
  expect_dropped(rows);
  expect_taken(with_gre("3001 880B 005C 0005 00000001"));
  // From elsewhere it is a packet of a protocol that nobody speaks.
  router.reset();
  config.neighbours.push_back({"wan0", ip4("203.0.113.50"), config_mac(gateway_mac)});
  start();
  EXPECT_EQ(receive("wan0", inward(outer("203.0.113.50").gre(own_call, 1).ppp(), sent_ttl)),
            receive_verdict::slow);
  EXPECT_EQ(icmp_of(only_frame_on("wan0")).code, wire::icmp_code::protocol_unreachable);
}

TEST_F(tunnel_input_test, follows_the_numbers_of_a_pptp_call) {
  start_uplink(line_kind::ethernet, pptp);
  const auto received = [&](u32 sequence, std::optional<u32> acknowledgement = std::nullopt) {
    const packet outer = packet().eth(wan_mac, gateway_mac).ipv4(gateway, wan_address);
    expect_taken(inward(packet(outer).gre(own_call, sequence, acknowledgement).ppp(), sent_ttl));
  };
  const pptp_params& call = params_of<pptp_params>("ppp1");
  received(7, 3);
  EXPECT_EQ(call.seq_recv, 7U);
  EXPECT_EQ(call.ack_recv, 3U);
  received(5, 2);
  EXPECT_EQ(call.seq_recv, 7U) << "late, but taken";
  EXPECT_EQ(call.ack_recv, 3U);

  // An acknowledgement alone.
  EXPECT_EQ(receive("wan0", packet()
                                .eth(wan_mac, gateway_mac)
                                .ipv4(gateway, wan_address)
                                .type(47)
                                .raw(from_hex("2081 880B 0000 0005 00000009"))),
            receive_verdict::slow);
  EXPECT_EQ(call.ack_recv, 9U);
  EXPECT_EQ(call.seq_recv, 7U);
}

TEST_F(tunnel_input_test, counts_the_numbers_of_an_l2tp_session) {
  start_uplink(line_kind::ethernet, numbered_l2tp);
  l2tp_session* object = params_of<l2tp_params>("ppp1").l2tp_session;
  object->nr = 0xFFFF;
  expect_taken(inward(peer->sends(), sent_ttl));
  EXPECT_EQ(object->nr, 0U);
  object->ns = 0xFFFF;
  for (const int expected : {0xFFFF, 0}) {
    receive("lan0", outward(on_lan_in(), sent_ttl));
    const bytes frame = only_frame_on("wan0");
    constexpr std::size_t ns = wire::ethernet_length + wire::ipv4_min_length + 8 + 6;
    ASSERT_GT(frame.size(), ns + 2);
    EXPECT_EQ(frame[ns] << 8 | frame[ns + 1], expected);
  }
}

TEST_F(tunnel_input_test, drops_every_truncation) {
  const std::pair<line_kind, uplink_options> rows[] = {
      {line_kind::pppoe_on_vlan, session},
      {line_kind::ethernet, numbered_l2tp},
      {line_kind::ethernet, pptp},
      {line_kind::pppoe, l2tp},
  };
  for (const auto& [line, options] : rows) {
    SCOPED_TRACE(options.name);
    start_uplink(line, options);
    load_module();
    const packet whole = inward(peer->sends(), sent_ttl);
    const std::size_t length = whole.build().size();
    for (std::size_t cut = 0; cut < length; ++cut) {
      ASSERT_EQ(receive("wan0", packet(whole).truncate(cut)), receive_verdict::dropped) << cut;
      ASSERT_TRUE(sent_on("lan0").empty());
    }
    // The outer headers made to fit what is there: what is inside is cut short.
    const bytes frame = whole.build();
    EXPECT_EQ(receive("wan0", frame), receive_verdict::slow);
    EXPECT_EQ(sent_on("lan0").size(), 1U);
  }
}

// The outer lengths are right, so that each layer meets an inner one that is cut short.
TEST_F(tunnel_input_test, drops_what_is_cut_short_inside) {
  const uplink_options kinds[] = {session, l2tp, numbered_l2tp, pptp};
  for (const uplink_options& options : kinds) {
    SCOPED_TRACE(options.name);
    start_uplink(line_kind::pppoe, options);
    const bytes inner = inward(packet(), sent_ttl).build();
    for (std::size_t cut = 0; cut < inner.size(); ++cut) {
      packet frame = peer->sends();
      if (options.kind == uplink_kind::line) frame.type(wire::ppp_protocol::ipv4);
      ASSERT_EQ(receive("wan0", frame.raw(std::span(inner).first(cut))), receive_verdict::dropped)
          << cut;
    }
    EXPECT_TRUE(sent_on("lan0").empty());
  }
}

TEST_F(tunnel_input_test, fits_packets_to_what_the_line_carries) {
  struct size_row {
    line_kind line;
    uplink_options options;
    u16 mtu;
  };
  const size_row rows[] = {
      {line_kind::pppoe, session, 1492},          {line_kind::ethernet, l2tp, 1462},
      {line_kind::ethernet, numbered_l2tp, 1458}, {line_kind::pppoe_on_vlan, l2tp, 1454},
      {line_kind::ethernet, pptp, 1460},          {line_kind::pppoe, pptp, 1452},
  };
  constexpr u16 udp_headers = 28;
  for (const size_row& one : rows) {
    SCOPED_TRACE(one.mtu);
    start_uplink(one.line, one.options);
    const auto whole = [](packet frame, u16 length) {
      return frame.ipv4(host, server)
          .dont_fragment()
          .udp(1, 2)
          .payload(static_cast<std::size_t>(length - udp_headers));
    };
    EXPECT_EQ(receive("lan0", whole(on_lan_in(), one.mtu)), receive_verdict::slow);
    EXPECT_LE(only_frame_on("wan0").size(), 1500U + 18U);
    EXPECT_EQ(receive("lan0", whole(on_lan_in(), static_cast<u16>(one.mtu + 1))),
              receive_verdict::slow);
    const wire::icmphdr error = icmp_of(only_frame_on("lan0"));
    EXPECT_EQ(error.code, wire::icmp_code::fragmentation_needed);
    EXPECT_EQ(error.sequence.host(), one.mtu);
    EXPECT_TRUE(sent_on("wan0").empty());

    EXPECT_EQ(receive("lan0", from_host().udp(1, 2).payload(2000 - udp_headers)),
              receive_verdict::slow);
    const std::vector<bytes> fragments = sent_on("wan0");
    EXPECT_EQ(fragments.size(), 2U);
    for (const bytes& fragment : fragments)
      EXPECT_TRUE(sound_frame(fragment));
  }
}

// A tunnel's packet that comes out of a tunnel has been put there by a stranger.
TEST_F(tunnel_input_test, does_not_unwrap_itself_again) {
  for (const uplink_options& options : {l2tp, pptp}) {
    SCOPED_TRACE(options.name);
    start_uplink(line_kind::ethernet, options);
    const bytes once = inward(peer->sends(), sent_ttl).build();
    const std::span<const u8> inner = std::span(once).subspan(wire::ethernet_length);
    receive("wan0", peer->sends().raw(inner));
    EXPECT_TRUE(sent_on("lan0").empty());
  }
}

// A translated connection with the same outer ends and ports would otherwise get the packets.
TEST_F(tunnel_input_test, a_translated_connection_does_not_steal_a_tunnels_packets) {
  start_uplink(line_kind::ethernet, l2tp);
  router.reset();
  config.masquerade = {"wan0"};
  start();
  receive("lan0", from_host(gateway).udp(1701, 1701).payload(20));
  EXPECT_EQ(udp_of(only_frame_on("wan0")).source.host(), 1701);
  expect_taken(inward(peer->sends(), sent_ttl));
}

class offer_record : public tunnel_test {
 protected:
  offer_record() {
    flags.clear();
    handle.enable = 1;
    handle._vok_forward = [](vok_handle*, sk_buff* skb, unsigned long) {
      flags.push_back(skb->fast_flags);
      return -1;
    };
    handle._vok_ipc_delete_by_dev = [](vok_handle*, net_device*) { return 0; };
    handle._vok_pptp_control_packet = [](const u8* p) { return p[2] == 0xC0 ? 1 : 0; };
    handle._vok_pptp_compress_packet = [](const u8* p) { return p[0] == 0xFD ? 1 : 0; };
    handle.session_delete_ipc = [](vok_handle*, l2tp_session*) {};
    handle._ip_conntrack_ipct_add = [](vok_handle*, sk_buff*, unsigned, nf_conn*, int,
                                       const nf_conntrack_tuple*) {};
    handle._ip_conntrack_ipct_delete = [](vok_handle*, nf_conn*) { return 0; };
    handle._vok_nf_conntrack_ext_alloc = [](nf_conn*) { return -1; };
    kcih = &handle;
  }
  ~offer_record() override {
    router.reset();
    kcih = nullptr;
  }

  static inline std::vector<u32> flags;
  vok_handle handle{};
};

TEST_F(offer_record, frames_of_a_known_session_say_so) {
  for (const line_kind line : {line_kind::pppoe, line_kind::pppoe_on_vlan}) {
    start_uplink(line, session);
    flags.clear();
    receive("wan0", inward(peer->sends(), sent_ttl));
    receive("wan0", inward(line_header(line, wan_mac, "02:00:00:00:02:03"), sent_ttl));
    receive("lan0", outward(on_lan_in(), sent_ttl));
    // The second is not from the session's other end.
    EXPECT_EQ(flags, (std::vector<u32>{fast_flag::received_on_ppp, 0}));
  }
}

TEST_F(offer_record, pptp_control_compressed_packets_and_strangers_are_kept_back) {
  for (const line_kind line : {line_kind::ethernet, line_kind::vlan, line_kind::pppoe_on_vlan}) {
    start_uplink(line, pptp);
    flags.clear();
    const auto gre = [&] {
      return line_header(line, wan_mac, gateway_mac).ipv4(gateway, wan_address).gre(own_call, 1);
    };
    receive("wan0", gre().raw(from_hex("FF03 C021 0901 0008 0000 0000")));
    receive("wan0", gre().raw(from_hex("FD 9000 1122 3344 5566")));
    packet stranger = line_header(line, wan_mac, gateway_mac).ipv4(server, wan_address);
    receive("wan0", inward(stranger.gre(own_call, 1).ppp(), sent_ttl));
    EXPECT_TRUE(flags.empty());
    receive("wan0", inward(gre().ppp(), sent_ttl));
    EXPECT_EQ(flags.size(), 1U);
  }
}

}  // namespace
}  // namespace tarvelo::test
