// SPDX-License-Identifier: GPL-2.0-only
//
// What tunnels count and number, on packets that go in and on packets that come out.
#include "module/ipc/pptp_frames.h"
#include "tests/module/ppp_scene.h"

namespace tarvelo::test {
namespace {

class tunnels : public ppp_scene {
 protected:
  void offer_one() { ASSERT_EQ(offer(offered(), lan), fate::forward); }
  [[nodiscard]] bytes sent() { return wan.take().at(0).data; }
  /// A PPTP packet with these numbers in its header.
  void receive(u32 sequence, std::optional<u32> acknowledgement = std::nullopt) {
    packet p;
    p.eth(lan_mac, host_mac);
    p.ipv4(inside_tunnel_remote.address, inside_tunnel_local.address);
    p.gre(inside_tunnel_local.port, sequence, acknowledgement).ppp();
    ASSERT_EQ(offer(with_inner(p, false).build(), lan), fate::forward);
  }
};

TEST_F(tunnels, pptp_acknowledges_what_it_has_received) {
  set_up(side::plain, side::pptp);
  connect();
  pptp_params* call = out_ppp_->call();
  call->seq_recv = 7;
  offer_one();
  bytes out = sent();
  EXPECT_EQ(out.size(), 94U);
  EXPECT_EQ(get16(out, 38), 0x002C);
  EXPECT_EQ(out[35], 0x81);
  EXPECT_EQ(bytes(out.begin() + 46, out.begin() + 50), from_hex("00000007"));
  EXPECT_EQ(call->ack_sent, 7U);

  offer_one();  // nothing new to acknowledge
  out = sent();
  EXPECT_EQ(out.size(), 90U);
  EXPECT_EQ(out[35], 0x01);
  EXPECT_EQ(bytes(out.begin() + 42, out.begin() + 46), from_hex("00000002"));
  EXPECT_EQ(call->seq_sent, 2U);
}

TEST_F(tunnels, pptp_leaves_out_what_was_negotiated) {
  set_up(side::plain, side::pptp);
  connect();
  struct {
    u32 options;
    std::size_t size;
    const char* ppp;
  } const rows[] = {
      {pptp_ppp_flag::compress_protocol | pptp_ppp_flag::omit_address_control, 87, "21"},
      {pptp_ppp_flag::omit_address_control, 88, "0021"},
      {pptp_ppp_flag::compress_protocol, 89, "FF0321"},
      {0, 90, "FF030021"},
  };
  for (const auto& row : rows) {
    out_ppp_->call()->ppp_flags = row.options;
    offer_one();
    const bytes out = sent();
    EXPECT_EQ(out.size(), row.size);
    const bytes ppp = from_hex(row.ppp);
    EXPECT_TRUE(std::equal(ppp.begin(), ppp.end(), out.begin() + 46)) << row.ppp;
    EXPECT_EQ(bytes(out.begin() + 34, out.begin() + 38), from_hex("3001880B"));
    EXPECT_EQ(get16(out, 38), out.size() - 46);
    EXPECT_TRUE(sound_frame(out));
  }
}

TEST_F(tunnels, pptp_notes_the_later_number_across_the_wrap) {
  set_up(side::pptp, side::plain);
  connect();
  pptp_params* call = in_ppp_->call();
  struct {
    u32 before, received, after;
  } const acks[] = {{0xFFFFFFF0, 5, 5}, {10, 9, 10}, {10, 11, 11}, {0xFFFFFEFF, 5, 0xFFFFFEFF}},
          sequences[] = {{0xFFFFFFFF, 0, 0}, {5, 0xFFFFFFFE, 5}, {5, 5, 5}, {5, 9, 9}};
  for (const auto& row : acks) {
    call->ack_recv = row.before;
    receive(0, row.received);
    EXPECT_EQ(call->ack_recv, row.after) << row.received;
  }
  for (const auto& row : sequences) {
    call->seq_recv = row.before;
    receive(row.received);
    EXPECT_EQ(call->seq_recv, row.after) << row.received;
  }
}

TEST_F(tunnels, pptp_takes_every_framing_of_an_ip_packet) {
  set_up(side::pptp, side::plain);
  connect();
  for (const ppp_framing framing : {ppp_framing::full, ppp_framing::without_address,
                                    ppp_framing::compressed, ppp_framing::compressed_address}) {
    packet p;
    p.eth(lan_mac, host_mac);
    p.ipv4(inside_tunnel_remote.address, inside_tunnel_local.address);
    p.gre(inside_tunnel_local.port, 0, 1).ppp(framing);
    EXPECT_EQ(offer(with_inner(p, false).build(), lan), fate::forward);
    EXPECT_FRAME_EQ(sent(), expected());
  }
}

TEST_F(tunnels, l2tp_numbers_what_it_sends) {
  set_up(side::plain, side::l2tp, false, true);
  connect();
  out_ppp_->session()->ns = 0xFFFF;
  for (const u16 ns : {u16{0xFFFF}, u16{0}}) {
    offer_one();
    const bytes out = sent();
    EXPECT_EQ(out.size(), 96U);
    EXPECT_EQ(get16(out, 16), 82);
    EXPECT_EQ(get16(out, 38), 62);
    EXPECT_EQ(get16(out, 42), 0x0802);
    EXPECT_EQ(get16(out, 48), ns);
    EXPECT_EQ(get16(out, 50), 0);
  }
  EXPECT_TRUE(log.take().empty());
}

TEST_F(tunnels, l2tp_lengths_and_outer_fields) {
  set_up(side::plain, side::l2tp);
  connect();
  EXPECT_EQ(out_ppp_->tunnel()->ttl, sysctl_ip_default_ttl);
  out_ppp_->tunnel()->tos = 0x28;
  out_ppp_->tunnel()->ttl = 9;
  offer_one();
  const bytes out = sent();
  EXPECT_EQ(out.size(), 92U);
  EXPECT_EQ(get16(out, 16), 78);
  EXPECT_EQ(get16(out, 38), 58);
  EXPECT_EQ(out[15], 0x28);
  EXPECT_EQ(out[22], 9);
  EXPECT_TRUE(sound_frame(out));
}

TEST_F(tunnels, l2tp_counts_numbered_packets_and_lets_go_of_the_session) {
  set_up(side::l2tp, side::plain);
  connect();
  l2tp_session* session = in_ppp_->session();
  const s32 references = atomic_read(&session->ref_count);
  session->nr = 0xFFFF;
  struct {
    u16 first_word;
    u16 nr;
  } const rows[] = {{0x0002, 0xFFFF}, {0x0802, 0}, {0x4002, 0}, {0x4802, 1}};
  for (const auto& row : rows) {
    packet p;
    p.eth(lan_mac, host_mac);
    p.ipv4(inside_tunnel_remote.address, inside_tunnel_local.address).udp(5, 6).no_checksum();
    p.l2tp(row.first_word, inside_ids, inside_ids + session_step, 99).ppp();
    EXPECT_EQ(offer(with_inner(p, false).build(), lan), fate::forward);
    EXPECT_FRAME_EQ(sent(), expected());
    EXPECT_EQ(session->nr, row.nr);
  }
  EXPECT_EQ(atomic_read(&session->ref_count), references);
}

TEST_F(tunnels, tells_compressed_and_control_frames_apart) {
  struct {
    const char* frame;
    int compressed;
    int control;
  } const rows[] = {
      {"fd 00 00 00", 1, 0}, {"ff 03 00 fd", 1, 0}, {"ff 03 00 21", 0, 0}, {"00 21 45 00", 0, 0},
      {"ff 03 c0 21", 0, 1}, {"c0 21 01 00", 0, 1}, {"ff 03 80 fd", 1, 1}, {"80 fd 01 00", 0, 1},
      {"ff 03 c0 23", 0, 0}, {"c0 23 01 00", 0, 1}, {"ff 03 c2 23", 0, 1}, {"80 57 01 00", 0, 1},
      {"02 81 00 00", 0, 1}, {"02 82 00 00", 0, 0}, {"ff 03 80 21", 0, 1}, {"ff 04 c0 21", 0, 0},
  };
  for (const auto& row : rows) {
    const bytes frame = from_hex(row.frame);
    EXPECT_EQ(kcih->_vok_pptp_compress_packet(frame.data()), row.compressed) << row.frame;
    EXPECT_EQ(kcih->_vok_pptp_control_packet(frame.data()), row.control) << row.frame;
  }
}

}  // namespace
}  // namespace tarvelo::test
