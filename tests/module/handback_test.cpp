// SPDX-License-Identifier: GPL-2.0-only
//
// Everything that sends a frame back to the kernel, reason by reason. offer() holds each of them to
// the promise that the frame comes back as it was and nothing is kept.
#include <functional>

#include "module/core/counters.h"
#include "module/forward/entry.h"
#include "module/ipc/table.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 udp = wire::ip_protocol::udp;

class handback : public module_scene {
 protected:
  tracked_connection ct{tuple(tcp, inside, peer), tuple(tcp, peer, translated)};
  tracked_connection datagrams{tuple(udp, inside, peer), tuple(udp, peer, translated)};

  handback() {
    ripen(source_nat(ct, tcp, false));
    ripen(source_nat(datagrams, udp, false));
  }

  [[nodiscard]] static packet segment() { return packet_of(tcp, lan_mac, host_mac, inside, peer); }
  [[nodiscard]] static packet datagram() { return packet_of(udp, lan_mac, host_mac, inside, peer); }
  [[nodiscard]] static packet bare() { return packet().eth(lan_mac, host_mac); }

  [[nodiscard]] static ipc_entry* entry() {
    return kcih->_vok_ipc_lkup(kcih, ip4(inside.address), ip4(peer.address), tcp,
                               wire::htons(inside.port), wire::htons(peer.port), 0);
  }
};

struct frame_row {
  const char* name;
  packet frame;
  fate reason;
  u32 counted;  ///< in `ethernet_packet`
};

TEST_F(handback, by_what_the_frame_is) {
  const auto to_ip = [](const char* source, const char* destination) {
    return bare().ipv4(source, destination);
  };
  const bytes session_lcp = from_hex("11 00 12 34 00 04 c0 21 00 00");
  const frame_row rows[] = {
      {"arp", bare().arp(1, host_mac, "192.168.1.2", lan_mac, "192.168.1.1"), fate::unknown_type,
       0},
      {"tagged arp", bare().vlan(5).arp(1, host_mac, "192.168.1.2", lan_mac, "192.168.1.1"),
       fate::unknown_type, 0},
      {"double tag", bare().vlan(5).vlan(6).ipv4("192.168.1.2", "198.51.100.7").udp(1, 2),
       fate::unknown_type, 0},
      {"ppp control", bare().type(wire::ethertype::pppoe_session).raw(session_lcp),
       fate::unknown_ppp_protocol, 0},
      {"multicast mac",
       packet()
           .eth("01:00:5e:00:00:01", host_mac)
           .ipv4(inside.address, peer.address)
           .tcp(40000, 80),
       fate::group_destination, 0},
      {"version 5", segment().version_ihl(0x55), fate::version_mismatch, 0},
      {"ipv6 type, version 4", bare().type(wire::ethertype::ipv6).ipv4("1.2.3.4", "5.6.7.8"),
       fate::version_mismatch, 0},
      {"ipv6", bare().ipv6("2001:db8::1", "2001:db8::2").tcp(1, 2), fate::no_entry, 1},
      {"pppoe with ipv4", bare().pppoe(0x1234).ipv4(inside.address, peer.address).tcp(40000, 80),
       fate::encapsulation, 1},
      {"header length 16", segment().version_ihl(0x44), fate::bad_header, 1},
      {"total length below header", segment().total_length(19), fate::bad_header, 1},
      {"total length beyond frame", segment().total_length(41), fate::truncated, 1},
      {"options beyond total length", segment().version_ihl(0x4F), fate::bad_header, 1},
      {"total length cuts tcp", segment().total_length(39), fate::truncated, 1},
      {"total length cuts udp", datagram().payload(20).total_length(27), fate::truncated, 1},
      {"icmp", to_ip("192.168.1.2", "198.51.100.7").icmp(8, 0), fate::other_protocol, 1},
      {"gre", to_ip("192.168.1.2", "198.51.100.7").type(47).payload(60), fate::tunnelled, 1},
      {"middle fragment", datagram().fragment(64, true).payload(8), fate::fragment, 1},
      {"last fragment", datagram().fragment(64, false).payload(8), fate::fragment, 1},
      {"multicast group", to_ip("192.168.1.2", "239.1.1.1").udp(1, 2), fate::group_address, 1},
      {"multicast source", to_ip("224.0.0.1", "198.51.100.7").udp(1, 2), fate::group_address, 1},
      {"syn", segment().flags(wire::tcp_flag::syn), fate::tcp_syn, 1},
      {"other port", packet_of(tcp, lan_mac, host_mac, {"192.168.1.2", 40001}, peer),
       fate::no_entry, 1},
      {"other direction", packet_of(tcp, wan_mac, gateway_mac, peer, translated), fate::no_entry,
       1},
  };
  for (const frame_row& row : rows) {
    SCOPED_TRACE(row.name);
    ethernet_packet = 0;
    EXPECT_EQ(offer(row.frame.build(), lan), row.reason);
    EXPECT_EQ(ethernet_packet, row.counted);
  }
  EXPECT_EQ(ip_packet, 0U);
  EXPECT_EQ(ct.references(), 1);
}

/// L2TP is told by its first word and the PPP framing behind it, not by ports. What is recognised
/// here has no packet inside.
TEST_F(handback, l2tp_inside_udp) {
  struct {
    const char* name;
    const char* payload;
    fate result;
  } const rows[] = {
      {"plain header", "00 02 00 0a 00 1e ff 03 00 21", fate::version_mismatch},
      {"with length", "40 02 00 48 00 0a 00 1e ff 03 00 21", fate::version_mismatch},
      {"with a length beyond the end", "40 02 00 49 00 0a 00 1e ff 03 00 21", fate::truncated},
      {"with sequence", "08 02 00 0a 00 1e 00 00 00 00 ff 03 00 21", fate::version_mismatch},
      {"compressed protocol", "00 02 00 0a 00 1e 21", fate::version_mismatch},
      {"control message", "c8 02 00 0a 00 1e ff 03 00 21", fate::forward},
      {"with offset", "02 02 00 0a 00 1e ff 03 00 21", fate::forward},
      {"broken framing", "00 02 00 0a 00 1e ff 05 00 21", fate::forward},
      {"ppp control", "00 02 00 0a 00 1e ff 03 c0 21", fate::forward},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const bytes header = from_hex(row.payload);
    EXPECT_EQ(offer(datagram().raw(header).payload(60).build(), lan), row.result);
    // Too short to hold a packet: plain UDP, whatever it looks like.
    EXPECT_EQ(offer(datagram().raw(header).payload(86 - 42 - header.size()).build(), lan),
              fate::forward);
  }
}

TEST_F(handback, by_the_state_of_the_connection) {
  struct {
    const char* name;
    std::function<void(nf_conn*, vok_ct_ext*)> change;
    fate reason;
  } const rows[] = {
      {"not confirmed", [](nf_conn* c, vok_ct_ext*) { c->status = IPS_SEEN_REPLY; },
       fate::connection_gone},
      {"dying", [](nf_conn* c, vok_ct_ext*) { c->status |= IPS_DYING; }, fate::connection_gone},
      {"double nat", [](nf_conn*, vok_ct_ext* e) { e->double_nat = 1; }, fate::double_nat},
      {"nineteen reports", [](nf_conn*, vok_ct_ext* e) { e->add_calls = 19; }, fate::not_ripe},
      {"no record", [](nf_conn* c, vok_ct_ext*) { c->vok_ext = nullptr; }, fate::no_record},
      {"expects a tunnel", [](nf_conn*, vok_ct_ext*) { entry()->flags |= ipc_flag::l2tp_in; },
       fate::encapsulation},
      {"orphaned", [](nf_conn*, vok_ct_ext*) { entry()->flags |= ipc_flag::orphaned; },
       fate::no_entry},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    nf_conn* c = ct.get();
    vok_ct_ext* ext = c->vok_ext;
    ipc_entry* e = entry();
    const u32 status = c->status;
    const vok_ct_ext record = *ext;
    const u32 flags = e->flags;
    row.change(c, ext);
    EXPECT_EQ(offer(segment().build(), lan), row.reason);
    e->flags = flags;
    c->vok_ext = ext;
    *ext = record;
    c->status = status;
    EXPECT_EQ(offer(segment().build(), lan), fate::forward);
    EXPECT_EQ(ct.references(), 1);
  }
}

TEST_F(handback, from_the_first_fin_or_reset_on) {
  const u8 endings[] = {wire::tcp_flag::fin | wire::tcp_flag::ack, wire::tcp_flag::rst};
  for (const u8 flags : endings) {
    EXPECT_EQ(offer(segment().build(), lan), fate::forward);
    EXPECT_EQ(offer(segment().flags(flags).build(), lan), fate::tcp_ending);
    EXPECT_EQ(offer(segment().build(), lan), fate::tcp_ending);
    entry()->flags &= ~ipc_flag::tcp_closing;
  }
  // The same bits of a datagram's payload mean nothing.
  EXPECT_EQ(offer(datagram().payload(20, 0xFF).build(), lan), fate::forward);
}

TEST_F(handback, a_buffer_that_has_a_connection_already) {
  sk_buff* skb = make_skb(segment().build(), lan);
  ct.attach(skb, IP_CT_ESTABLISHED);
  EXPECT_EQ(in_softirq([&] { return forward_frame(kcih, skb); }), fate::already_tracked);
  EXPECT_EQ(skb->nfct, &ct->ct_general);
  kfree_skb(skb);
}

TEST_F(handback, without_handle_or_buffer) {
  sk_buff* skb = make_skb(segment().build(), lan);
  EXPECT_EQ(kcih->_vok_forward(nullptr, skb, 0), -1);
  EXPECT_EQ(kcih->_vok_forward(kcih, nullptr, 0), -1);
  EXPECT_EQ(kcih->_vok_forward_eth_protocol(kcih, nullptr, 0), -1);
  kfree_skb(skb);
}

/// Every bit of the headers, one at a time: whatever comes out is a decision, not an accident.
TEST_F(handback, survives_every_flipped_bit) {
  for (const packet& base : {segment().payload(4), datagram().payload(60)}) {
    const bytes good = base.build();
    for (std::size_t bit = 0; bit < 8 * good.size(); ++bit) {
      bytes bad = good;
      bad[bit / 8] = static_cast<u8>(bad[bit / 8] ^ 1U << bit % 8);
      (void)offer(bad, lan);
      if (ipc_entry* e = entry()) e->flags &= ~ipc_flag::tcp_closing;
    }
  }
  EXPECT_EQ(ct.references(), 1);
  EXPECT_EQ(offer(segment().build(), lan), fate::forward);
}

}  // namespace
}  // namespace tarvelo::test
