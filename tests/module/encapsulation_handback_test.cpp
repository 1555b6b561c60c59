// SPDX-License-Identifier: GPL-2.0-only
//
// Frames that go back because of what they are wrapped in, or because of what they would become.
#include <functional>

#include "tests/module/ppp_scene.h"

namespace tarvelo::test {
namespace {

class unwrapped : public ppp_scene {
 protected:
  [[nodiscard]] static packet tunnel_outer() {
    return packet()
        .eth(lan_mac, host_mac)
        .ipv4(inside_tunnel_remote.address, inside_tunnel_local.address);
  }
};

TEST_F(unwrapped, pppoe_needs_the_entrys_session) {
  struct {
    side in, out;
    u16 sid;
    fate result;
  } const rows[] = {
      {side::pppoe, side::plain, inside_sid, fate::forward},
      {side::pppoe, side::plain, inside_sid + 1, fate::other_session},
      {side::pppoe, side::plain, 0xFFFF, fate::other_session},
      {side::pppoe, side::pppoe, inside_sid, fate::forward},
      {side::pppoe, side::pppoe, upstream_sid, fate::other_session},
      {side::plain, side::pppoe, inside_sid, fate::encapsulation},
      {side::plain, side::plain, inside_sid, fate::encapsulation},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.sid);
    peer_route_.reset();
    tunnel_route_.reset();
    in_ppp_.reset();
    out_ppp_.reset();
    ct->vok_ext->flags &= ~ct_ext_flag::direction_marks;
    set_up(row.in, row.out);
    connect();
    const packet p = packet().eth(lan_mac, host_mac).pppoe(row.sid);
    EXPECT_EQ(offer(with_inner(p, false).build(), lan), row.result);
    (void)kcih->_vok_ipc_delete_by_dev(kcih, wan);
  }
}

TEST_F(unwrapped, the_entrys_wrapping_must_be_there) {
  set_up(side::pppoe, side::plain);
  connect();
  in_ = side::plain;
  EXPECT_EQ(offer(offered(), lan), fate::encapsulation);
  const packet p = packet().eth(lan_mac, host_mac).pppoe(inside_sid);
  EXPECT_EQ(offer(with_inner(p, false).fragment(0, true).payload(8).build(), lan), fate::fragment);
  bytes promising = with_inner(p, false).build();
  ++promising[wire::ethernet_length + pppoe_payload_length + 1];
  EXPECT_EQ(offer(promising, lan), fate::truncated);
}

TEST_F(unwrapped, l2tp_must_be_of_the_entrys_session) {
  set_up(side::l2tp, side::plain);
  connect();
  const auto message = [](u16 word, u16 tunnel, u16 session) {
    packet p = tunnel_outer();
    p.udp(1, 2).no_checksum().l2tp(word, tunnel, session).ppp();
    return with_inner(p, false);
  };
  constexpr u16 own_session = inside_ids + session_step;
  struct {
    const char* name;
    packet frame;
    fate result;
  } const rows[] = {
      {"own", message(0x0002, inside_ids, own_session), fate::forward},
      {"own, with length", message(0x4802, inside_ids, own_session), fate::forward},
      {"other tunnel", message(0x0002, inside_ids + 1, own_session), fate::other_session},
      {"other session", message(0x4002, inside_ids, own_session + 1), fate::other_session},
      {"inner fragment", message(0x0002, inside_ids, own_session).fragment(0, true),
       fate::fragment},
      {"inner icmp",
       tunnel_outer()
           .udp(1, 2)
           .no_checksum()
           .l2tp(2, 10, 12)
           .ppp()
           .ipv4("1.2.3.4", "5.6.7.8")
           .icmp(8, 0)
           .payload(40),
       fate::other_protocol},
      {"inner longer than outer", message(0x0002, inside_ids, own_session).total_length(41),
       fate::truncated},
      {"datagram longer than outer", message(0x0002, inside_ids, own_session).udp_length(1000),
       fate::truncated},
      // Not a tunnel, so a UDP flow that is not cached.
      {"with offset", message(0x0202, inside_ids, own_session), fate::no_entry},
      {"control", message(0x8002, inside_ids, own_session), fate::no_entry},
      {"version 1", message(0x0001, inside_ids, own_session), fate::no_entry},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(offer(row.frame.build(), lan), row.result);
  }
  // The session is on its way out: whoever still finds it may not use it.
  atomic_t& count = in_ppp_->session()->ref_count;
  const s32 references = atomic_read(&count);
  atomic_set(&count, 0);
  EXPECT_EQ(offer(offered(), lan), fate::no_session);
  atomic_set(&count, references);
  EXPECT_EQ(offer(offered(), lan), fate::forward);
}

TEST_F(unwrapped, pptp_must_be_a_data_packet_of_the_call) {
  set_up(side::pptp, side::plain);
  connect();
  const bytes good = offered();
  struct {
    const char* name;
    std::size_t at;
    u8 value;
    fate result;
  } const rows[] = {
      {"as it was", 34, 0x30, fate::forward},
      {"checksum bit", 34, 0xB0, fate::tunnelled},
      {"no sequence", 34, 0x20, fate::tunnelled},
      {"version 0", 35, 0x00, fate::tunnelled},
      {"flag bits", 35, 0x09, fate::tunnelled},
      {"other payload", 37, 0x0C, fate::tunnelled},
      {"more than there is", 38, 0x01, fate::truncated},
      {"other call", 41, 0x00, fate::other_session},
      {"ipv6 in ppp", 49, 0x57, fate::tunnelled},
      {"broken framing", 47, 0x05, fate::tunnelled},
      {"inner ipv6", 50, 0x65, fate::version_mismatch},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    bytes frame = good;
    frame[row.at] = row.value;
    EXPECT_EQ(offer(frame, lan), row.result);
  }
  // An L2TP packet of the same inner flow is not of this call.
  packet p = tunnel_outer();
  p.udp(1, 2).no_checksum().l2tp(0x0002, 1, 2).ppp();
  EXPECT_EQ(offer(with_inner(p, false).build(), lan), fate::encapsulation);
}

/// Too short to be looked into, however sound.
TEST_F(unwrapped, short_tunnel_frames_are_not_looked_into) {
  tracked_connection datagrams(tuple(wire::ip_protocol::udp, inside, peer),
                               tuple(wire::ip_protocol::udp, peer, translated));
  set_up(side::pptp, side::plain);
  report r = source_nat(datagrams, wire::ip_protocol::udp, false);
  r.rx_dev = input();
  ripen(r);
  const auto with_payload = [](std::size_t length) {
    packet p = tunnel_outer();
    p.gre(inside_tunnel_local.port, 0).ppp(ppp_framing::compressed);
    return p.ipv4(inside.address, peer.address).udp(inside.port, peer.port).payload(length).build();
  };
  EXPECT_EQ(with_payload(6).size(), 81U);
  EXPECT_EQ(offer(with_payload(6), lan), fate::truncated);
  EXPECT_EQ(offer(with_payload(7), lan), fate::forward);

  // Shorter ones of L2TP are plain UDP, of a flow that is not cached.
  const auto message = [](std::size_t length) {
    packet p = tunnel_outer();
    p.udp(1, 2).no_checksum().l2tp(0x0002, 1, 2).ppp();
    return p.ipv4(inside.address, peer.address).udp(inside.port, peer.port).payload(length).build();
  };
  EXPECT_EQ(message(6).size(), 86U);
  EXPECT_EQ(offer(message(6), lan), fate::no_entry);
  EXPECT_EQ(offer(message(7), lan), fate::encapsulation);
}

class too_big : public ppp_scene {};

TEST_F(too_big, in_headroom) {
  struct {
    side in, out;
    bool vlan_out;
    u32 needed;
  } const rows[] = {
      {side::plain, side::plain, true, 4},  {side::plain, side::pppoe, false, 8},
      {side::plain, side::pppoe, true, 12}, {side::pppoe, side::plain, true, 0},
      {side::pppoe, side::pppoe, true, 4},  {side::plain, side::l2tp, false, 64},
      {side::plain, side::pptp, false, 64}, {side::pppoe, side::pptp, true, 64},
      {side::l2tp, side::pppoe, true, 0},
  };
  for (const auto& row : rows) {
    peer_route_.reset();
    tunnel_route_.reset();
    in_ppp_.reset();
    out_ppp_.reset();
    vlan_gateway_.reset();
    vlan_.reset();
    ct->vok_ext->flags &= ~ct_ext_flag::direction_marks;
    ct->vok_ext->dev = nullptr;  // no record names a device that has gone
    set_up(row.in, row.out, row.vlan_out);
    connect();
    if (row.needed > 0) {
      EXPECT_EQ(offer(offered(), lan, row.needed - 1), fate::no_headroom) << row.needed;
    }
    EXPECT_EQ(offer(offered(), lan, row.needed), fate::forward) << row.needed;
    (void)kcih->_vok_ipc_delete_by_dev(kcih, carrier());
  }
}

/// The longest inner packet for each way; one byte more is handed back.
TEST_F(too_big, in_length) {
  struct {
    const char* name;
    side in, out;
    u32 ppp_mtu;
    std::size_t longest;
  } const rows[] = {
      {"plain", side::plain, side::plain, 1500, 1500},
      {"pppoe by the device below", side::plain, side::pppoe, 1500, 1492},
      {"pppoe by its own mtu", side::plain, side::pppoe, 1400, 1400},
      {"relabelled by the device below", side::pppoe, side::pppoe, 1500, 1492},
      {"relabelled by the output's own mtu", side::pppoe, side::pppoe, 1300, 1300},
      {"l2tp by the device below", side::plain, side::l2tp, 1500, 1500 - 38},
      {"pptp by the device below", side::plain, side::pptp, 1500, 1500 - 36},
      {"pptp from pppoe by its own mtu", side::pppoe, side::pptp, 1200, 1200},
      {"out of pppoe", side::pppoe, side::plain, 1500, 1500},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    peer_route_.reset();
    tunnel_route_.reset();
    in_ppp_.reset();
    out_ppp_.reset();
    ct->vok_ext->flags &= ~ct_ext_flag::direction_marks;
    ct->vok_ext->dev = nullptr;  // no record names a device that has gone
    set_up(row.in, row.out);
    if (out_ppp_ != nullptr) out_ppp_->dev->mtu = row.ppp_mtu;
    connect();
    EXPECT_EQ(offer(offered(false, row.longest - 40), lan), fate::forward);
    EXPECT_EQ(offer(offered(false, row.longest - 39), lan), fate::too_long);
    (void)kcih->_vok_ipc_delete_by_dev(kcih, wan);
  }
}

/// An acknowledgement makes the PPTP header longer, and counts.
TEST_F(too_big, with_an_acknowledgement) {
  set_up(side::plain, side::pptp);
  out_ppp_->dev->mtu = 1500;
  connect();
  out_ppp_->call()->seq_recv = 3;
  EXPECT_EQ(offer(offered(false, 1461 - 40), lan), fate::too_long);
  EXPECT_EQ(out_ppp_->call()->seq_sent, 0U);
  EXPECT_NE(out_ppp_->call()->ack_sent, 3U);
  EXPECT_EQ(offer(offered(false, 1460 - 40), lan), fate::forward);
}

/// A packet without Ethernet header is measured with the header that was pushed.
TEST_F(too_big, for_a_pushed_header) {
  fake_device tun("tun0", "00:00:00:00:00:00", ARPHRD_NONE);
  set_up(side::plain, side::plain);
  connect();
  const auto bare = [](std::size_t length) {
    return with_inner(packet(), false, length - 40).build();
  };
  EXPECT_EQ(offer(bare(1486), tun), fate::forward);
  EXPECT_EQ(offer(bare(1487), tun), fate::too_long);
  EXPECT_EQ(offer(bare(100), tun, 31), fate::no_headroom);
  EXPECT_EQ(offer(bare(100), tun, 32), fate::forward);
  entry()->flags |= ipc_flag::l2tp_out;
  EXPECT_EQ(offer(bare(100), tun), fate::encapsulation);
  entry()->flags &= ~ipc_flag::l2tp_out;
}

class unusable : public ppp_scene {
 protected:
  unusable() {
    set_up(side::plain, side::l2tp);
    connect();
  }
  [[nodiscard]] fate offer_one() { return offer(offered(), lan); }
};

TEST_F(unusable, session_that_ends_or_disagrees_with_itself) {
  l2tp_session* session = out_ppp_->session();
  session->hdr_len = 10;
  EXPECT_EQ(offer_one(), fate::no_session);
  session->hdr_len = 6;
  session->send_seq = 1;
  EXPECT_EQ(offer_one(), fate::no_session);
  session->send_seq = 0;
  EXPECT_EQ(offer_one(), fate::forward);
  l2tp_session_close(session);
  EXPECT_EQ(offer_one(), fate::no_session);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(unusable, session_that_no_header_can_be_built_for) {
  l2tp_session* session = out_ppp_->session();
  session->hdr_len = 11;
  EXPECT_EQ(offer_one(), fate::no_session);
  session->hdr_len = 6;
  out_ppp_->tunnel()->l2tp_session = nullptr;
  EXPECT_EQ(offer_one(), fate::no_session);
  out_ppp_->tunnel()->l2tp_session = session;
  const auto lines = log.take_text();
  ASSERT_EQ(lines.size(), 3U);
  const char* unusable_line =
      "[set_l2tp_opt 2247]kelmarduin debug:skb offset is too big or null session\n";
  EXPECT_EQ(lines[0], unusable_line);
  EXPECT_EQ(lines[1].rfind("[set_l2tp_opt 2248]session->hdr_len=11,skb->data=", 0), 0U);
  EXPECT_NE(lines[1].find(",skb->head="), std::string::npos);
  EXPECT_EQ(lines[2], unusable_line);
}

}  // namespace
}  // namespace tarvelo::test
