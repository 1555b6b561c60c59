// SPDX-License-Identifier: GPL-2.0-only
//
// What entries of PPP connections hold, which combinations make none, and how they leave the table.
#include "tests/module/ppp_scene.h"

namespace tarvelo::test {
namespace {

[[nodiscard]] int count() {
  return kcih->_vok_ipc_count_get(kcih);
}

class ppp_add : public ppp_scene {};

TEST_F(ppp_add, names_sessions_devices_and_addresses) {
  set_up(side::pppoe, side::pppoe);
  connect();
  const ipc_entry* e = entry();
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->pppoe_sid, wire::htons(upstream_sid));
  EXPECT_EQ(e->pppoe_sid_in, wire::htons(inside_sid));
  EXPECT_EQ(e->ppp_dev, in_ppp_->dev.get());
  EXPECT_EQ(e->ppp_mtu, 1492);
  EXPECT_EQ(e->sendif, wan.get());
  EXPECT_EQ(e->session, nullptr);
  EXPECT_EQ(mac_text(e->dmac), session_mac);
  EXPECT_EQ(mac_text(e->smac), wan_mac);
  EXPECT_EQ(ct->vok_ext->dev, out_ppp_->dev.get());
}

TEST_F(ppp_add, names_the_tunnel_and_its_next_hop) {
  set_up(side::pppoe, side::l2tp, true);
  connect();
  const ipc_entry* e = entry();
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->session, out_ppp_->tunnel());
  EXPECT_EQ(e->ppp_dev, in_ppp_->dev.get());
  EXPECT_EQ(e->ppp_mtu, 1440);
  EXPECT_EQ(e->sendif, static_cast<net_device*>(*vlan_));
  EXPECT_EQ(mac_text(e->dmac), gateway_mac);
  EXPECT_EQ(ct->vok_ext->vlan[0].vid, vlan_below_upstream);
  EXPECT_EQ(ct->vok_ext->vlan[0].real_dev, wan.get());
}

TEST_F(ppp_add, refuses_what_an_entry_cannot_hold) {
  for (const side in : {side::l2tp, side::pptp}) {
    for (const side out : {side::l2tp, side::pptp}) {
      peer_route_.reset();
      tunnel_route_.reset();
      in_ppp_.reset();
      out_ppp_.reset();
      set_up(in, out);
      connect();
      EXPECT_EQ(count(), 0);
    }
  }
}

TEST_F(ppp_add, refuses_without_a_session) {
  set_up(side::pppoe, side::plain);
  const auto without_session = [](ppp_interface& ppp) {
    ppp_conn_info info = {};
    ASSERT_EQ(ppp_get_conn_pkt_info(ppp.dev, &info), 0);
    info.sid = pppoe_no_session;
    ASSERT_EQ(ppp_attach_channel(ppp.dev, &info), 0);
  };
  without_session(*in_ppp_);
  connect();
  EXPECT_EQ(count(), 0);
  in_ppp_.reset();
  peer_route_.reset();
  tunnel_route_.reset();
  set_up(side::plain, side::pppoe);
  without_session(*out_ppp_);
  connect();
  EXPECT_EQ(count(), 0);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(ppp_add, refuses_a_tunnel_that_leads_nowhere) {
  set_up(side::plain, side::pptp);
  gateway.get()->nud_state = NUD_FAILED;
  connect();
  EXPECT_EQ(count(), 0) << "no next hop";
  gateway.get()->nud_state = NUD_REACHABLE;
  tunnel_route_.reset();
  {
    scoped_route into_itself("192.0.2.1", 32, "0.0.0.0", out_ppp_->dev);
    connect();
    EXPECT_EQ(count(), 0) << "the tunnel's packets would enter the tunnel";
  }
  connect();
  EXPECT_EQ(count(), 1) << "by the default route";
}

/// A point-to-point device that tells of no channel makes both sides plain.
TEST_F(ppp_add, takes_a_device_without_channel_as_plain) {
  set_up(side::plain, side::pppoe);
  ppp_detach_channel(out_ppp_->dev);
  connect();
  ASSERT_NE(entry(), nullptr);
  EXPECT_EQ(entry()->flags, ipc_flag::snat);
  EXPECT_EQ(entry()->sendif, out_ppp_->dev.get());
  EXPECT_EQ(entry()->ppp_mtu, 0);
}

TEST_F(ppp_add, failing_allocations_refuse_and_leak_nothing) {
  set_up(side::pppoe, side::l2tp);
  report r = source_nat(ct, wire::ip_protocol::tcp, false);
  sk_buff* skb = make_skb(r.frame, out_ppp_->dev);
  skb->rx_dev = in_ppp_->dev;
  skb->network_header = static_cast<u16>(skb_headroom(skb) + wire::ethernet_length);
  bool fired = true;
  for (u32 nth = 1; fired; ++nth) {
    fault::fail_allocation(nth);
    in_softirq(
        [&] { kcih->_ip_conntrack_ipct_add(kcih, skb, r.hook, ct.get(), r.info, &*r.tuple); });
    fired = fault::fired();
    fault::fail_allocation(0);
    EXPECT_EQ(count(), fired ? 0 : 1);
  }
  in_softirq([&] { kfree_skb(skb); });
}

class ppp_removal : public ppp_scene {};

TEST_F(ppp_removal, with_the_l2tp_session_and_no_other) {
  set_up(side::l2tp, side::plain);
  connect();
  ASSERT_EQ(count(), 1);
  std::unique_ptr<ppp_interface> other(
      ppp_interface::l2tp("ppp7", inside_tunnel_local, inside_tunnel_remote, 77));
  kcih->session_delete_ipc(nullptr, in_ppp_->session());
  kcih->session_delete_ipc(kcih, other->session());
  EXPECT_EQ(count(), 1);
  kcih->session_delete_ipc(kcih, in_ppp_->session());
  EXPECT_EQ(count(), 0);
}

/// Where L2TP keeps its session, PPTP keeps numbers, which may look like any pointer.
TEST_F(ppp_removal, by_session_leaves_pptp_alone) {
  set_up(side::plain, side::pptp);
  connect();
  std::unique_ptr<ppp_interface> other(
      ppp_interface::l2tp("ppp7", inside_tunnel_local, inside_tunnel_remote, 77));
  l2tp_session* session = other->session();
  memcpy(reinterpret_cast<u8*>(out_ppp_->call()) + offsetof(l2tp_params, l2tp_session), &session,
         sizeof session);
  kcih->session_delete_ipc(kcih, session);
  EXPECT_EQ(count(), 1);
}

/// A tunnel's interface is not named in an entry that comes from PPPoE, only pointed into.
TEST_F(ppp_removal, with_any_device_that_takes_part) {
  for (const side out : {side::pptp, side::l2tp, side::pppoe, side::plain}) {
    for (int which = 0; which < 3; ++which) {
      set_up(side::pppoe, out);
      connect();
      ASSERT_EQ(count(), 1);
      net_device* const gone = which == 0            ? in_ppp_->dev.get()
                               : which == 1          ? carrier()
                               : out_ppp_ != nullptr ? out_ppp_->dev.get()
                                                     : wan.get();
      EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, gone), 0);
      EXPECT_EQ(count(), 0) << which;
      ct->vok_ext->flags &= ~ct_ext_flag::direction_marks;
      ct->vok_ext->dev = nullptr;
      peer_route_.reset();
      tunnel_route_.reset();
      in_ppp_.reset();
      out_ppp_.reset();
    }
  }
}

}  // namespace
}  // namespace tarvelo::test
