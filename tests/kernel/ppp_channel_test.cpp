// SPDX-License-Identifier: GPL-2.0-only
// Channel objects and what a PPP interface tells of them.
#include "kernel/ppp_channel.h"

#include <cstring>

#include "kernel/errno.h"
#include "kernel/wire/endian.h"
#include "tests/support/fake_device.h"
#include "tests/support/kernel_fixture.h"

namespace {

using tarvelo::test::fake_device;

constexpr u8 peer_mac[wire::mac_length] = {0x02, 0, 0, 0, 0x09, 0x01};
const u16 session_id = wire::htons(0x1234);

class ppp_channel_test : public tarvelo::test::kernel_test {
 protected:
  fake_device ppp0{"ppp0", "00:00:00:00:00:00", ARPHRD_PPP};
  fake_device wan0{"wan0"};

  ppp_channel* pppoe() {
    pppoe_config config = {.dev = wan0.get(), .sid = session_id, .remote = {}};
    std::memcpy(config.remote, peer_mac, sizeof peer_mac);
    pppoe_channel* channel = pppoe_channel_alloc(&config);
    return channel != nullptr ? &channel->ppp : nullptr;
  }
};

/// The value of type T that lies `at` bytes into an object, as the fast path reads it.
template <typename T>
T word_at(const void* object, std::size_t at) {
  T value;
  std::memcpy(&value, static_cast<const u8*>(object) + at, sizeof value);
  return value;
}

TEST_F(ppp_channel_test, the_interface_tells_its_pppoe_session) {
  ppp_channel* channel = pppoe();
  ASSERT_NE(channel, nullptr);
  ASSERT_EQ(ppp_channel_attach(ppp0, channel), 0);

  ppp_conn_info info = {};
  info.type = static_cast<u8>(ppp_channel_type::none);
  ASSERT_EQ(ppp_get_conn_pkt_info(ppp0, &info), 0);
  EXPECT_EQ(info.chan, channel);
  EXPECT_EQ(info.type, 0);
  EXPECT_EQ(info.sid, session_id);
  EXPECT_EQ(std::memcmp(info.mac, peer_mac, sizeof peer_mac), 0);

  EXPECT_EQ(word_at<net_device*>(info.chan, 504), wan0.get());
  if constexpr (tarvelo::layout_is_binding) {
    EXPECT_EQ(std::memcmp(static_cast<u8*>(info.chan) + 514, peer_mac, sizeof peer_mac), 0);
  }
  ppp_channel_free(channel);
  EXPECT_EQ(ppp_get_conn_pkt_info(ppp0, &info), -ENODEV);
}

TEST_F(ppp_channel_test, tunnels_keep_their_parameters_where_the_fast_path_looks) {
  pptp_channel* pptp = pptp_channel_alloc();
  ASSERT_NE(pptp, nullptr);
  pptp->params.local_ip = 0x01020304;
  pptp->params.remote_ip = 0x05060708;
  EXPECT_EQ(word_at<u32>(pptp, 504 + 4), 0x01020304U);
  EXPECT_EQ(word_at<u32>(pptp, 504 + 12), 0x05060708U);
  EXPECT_EQ(ppp_channel_params(pptp), &pptp->params);

  l2tp_tunnel* tunnel = l2tp_tunnel_alloc(10, 20);
  const l2tp_session_config config = {.session_id = 30, .peer_session_id = 40, .send_seq = false};
  l2tp_session* session = l2tp_session_alloc(tunnel, &config);
  l2tp_channel* l2tp = l2tp_channel_alloc(session);
  ASSERT_NE(l2tp, nullptr);
  l2tp->params.local_ip = 0x0A0B0C0D;
  l2tp->params.remote_ip = 0x01010101;
  EXPECT_EQ(word_at<u32>(l2tp, 504), 0x0A0B0C0DU);
  EXPECT_EQ(word_at<u32>(l2tp, 504 + 4), 0x01010101U);
  EXPECT_EQ(word_at<u8>(l2tp, 504 + 13), 64) << "not the default time to live";
  EXPECT_EQ(word_at<l2tp_session*>(l2tp, 504 + 16), session);

  ASSERT_EQ(ppp_channel_attach(ppp0, &l2tp->ppp), 0);
  EXPECT_EQ(ppp_channel_attach(ppp0, &pptp->ppp), -EEXIST);
  ppp_conn_info info = {};
  ASSERT_EQ(ppp_get_conn_pkt_info(ppp0, &info), 0);
  EXPECT_EQ(info.chan, l2tp);
  EXPECT_EQ(info.type, 1);
  EXPECT_EQ(info.sid, 0xFFFF) << "a tunnel has no PPPoE session";

  // A channel that was never attached leaves the interface's own alone.
  ppp_channel_free(&pptp->ppp);
  EXPECT_EQ(ppp_get_conn_pkt_info(ppp0, &info), 0);
  EXPECT_EQ(atomic_read(&session->ref_count), 2);
  l2tp_session_put(session);
  l2tp_tunnel_put(tunnel);
  ppp_channel_free(&l2tp->ppp);
  ppp_channel_free(nullptr);
}

TEST_F(ppp_channel_test, a_reader_keeps_the_channel_and_its_device) {
  ppp_channel* channel = pppoe();
  ASSERT_EQ(ppp_channel_attach(ppp0, channel), 0);
  const s32 held = atomic_read(&wan0->refcnt);
  rcu_read_lock();
  ppp_conn_info info = {};
  ASSERT_EQ(ppp_get_conn_pkt_info(ppp0, &info), 0);
  ppp_channel_free(channel);
  EXPECT_EQ(word_at<net_device*>(info.chan, 504), wan0.get());
  EXPECT_EQ(atomic_read(&wan0->refcnt), held) << "given up while a reader may follow it";
  rcu_read_unlock();
  rcu_barrier();
  EXPECT_EQ(atomic_read(&wan0->refcnt), held - 1);
}

TEST_F(ppp_channel_test, without_memory_nothing_is_held) {
  const s32 held = atomic_read(&wan0->refcnt);
  fault::fail_allocation(1);
  EXPECT_EQ(pppoe(), nullptr);
  EXPECT_EQ(atomic_read(&wan0->refcnt), held);
  fault::fail_allocation(1);
  EXPECT_EQ(pptp_channel_alloc(), nullptr);

  ppp_channel* channel = pppoe();
  fault::fail_allocation(1);
  EXPECT_EQ(ppp_channel_attach(ppp0, channel), -ENOMEM);
  ppp_conn_info info = {};
  EXPECT_EQ(ppp_get_conn_pkt_info(ppp0, &info), -ENODEV);
  EXPECT_EQ(ppp_channel_attach(ppp0, channel), 0) << "a second try";
  ppp_channel_free(channel);
}

TEST_F(ppp_channel_test, a_buffer_counts_on_its_interface_as_long_as_it_is) {
  sk_buff* skb = tarvelo::test::make_skb(tarvelo::test::bytes(100), wan0);
  ASSERT_NE(skb, nullptr);
  ppp_rxstats_upd(ppp0, skb);
  ASSERT_NE(skb_pull(skb, 8), nullptr);
  ppp_txstats_upd(ppp0, skb);
  ppp_txstats_upd(ppp0, skb);
  const rtnl_link_stats64 stats = dev_stats(ppp0);
  EXPECT_EQ(stats.rx_packets, 1U);
  EXPECT_EQ(stats.rx_bytes, 100U);
  EXPECT_EQ(stats.tx_packets, 2U);
  EXPECT_EQ(stats.tx_bytes, 184U);
  kfree_skb(skb);
}

}  // namespace
