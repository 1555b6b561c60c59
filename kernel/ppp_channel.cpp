// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/ppp_channel.h"

#include "kernel/errno.h"
#include "kernel/route.h"
#include "kernel/slab.h"
#include "kernel/string.h"

namespace {

template <typename Channel>
Channel* alloc_channel(ppp_channel_type type) noexcept {
  static_assert(offsetof(Channel, ppp) == 0);
  auto* const channel = static_cast<Channel*>(kzalloc(sizeof(Channel), GFP_KERNEL));
  if (channel != nullptr) channel->ppp.type = type;
  return channel;
}

/// A channel is the first member of its kind's object.
template <typename Channel>
Channel* channel_of(ppp_channel* channel) noexcept {
  return reinterpret_cast<Channel*>(channel);
}

ppp_conn_info describe(ppp_channel* channel) noexcept {
  ppp_conn_info info = {};
  info.chan = channel;
  info.type = static_cast<u8>(channel->type);
  info.sid = pppoe_no_session;
  if (channel->type == ppp_channel_type::pppoe) {
    const pppoe_params& params = channel_of<pppoe_channel>(channel)->params;
    info.sid = params.sid;
    memcpy(info.mac, params.remote, sizeof info.mac);
  }
  return info;
}

/// No reader can see the device through the channel any more.
void free_channel(callback_head* head) {
  auto* const channel =
      reinterpret_cast<ppp_channel*>(reinterpret_cast<u8*>(head) - offsetof(ppp_channel, rcu));
  if (channel->type == ppp_channel_type::pppoe) {
    dev_put(channel_of<pppoe_channel>(channel)->params.dev);
  }
  kfree(channel);
}

}  // namespace

extern "C" {

pppoe_channel* pppoe_channel_alloc(const pppoe_config* config) noexcept {
  auto* const channel = alloc_channel<pppoe_channel>(ppp_channel_type::pppoe);
  if (channel == nullptr) return nullptr;
  dev_hold(config->dev);
  channel->params.dev = config->dev;
  channel->params.sid = config->sid;
  memcpy(channel->params.remote, config->remote, sizeof channel->params.remote);
  return channel;
}

pptp_channel* pptp_channel_alloc() noexcept {
  auto* const channel = alloc_channel<pptp_channel>(ppp_channel_type::pptp);
  if (channel != nullptr) pptp_numbers_init(&channel->params);
  return channel;
}

l2tp_channel* l2tp_channel_alloc(l2tp_session* session) noexcept {
  auto* const channel = alloc_channel<l2tp_channel>(ppp_channel_type::l2tp);
  if (channel == nullptr) return nullptr;
  atomic_inc(&session->ref_count);
  channel->params.l2tp_session = session;
  channel->params.ttl = static_cast<u8>(sysctl_ip_default_ttl);
  return channel;
}

int ppp_channel_attach(net_device* ppp_dev, ppp_channel* channel) noexcept {
  ppp_conn_info present = {};
  if (ppp_get_conn_pkt_info(ppp_dev, &present) == 0) return -EEXIST;
  const ppp_conn_info info = describe(channel);
  const int result = ppp_attach_channel(ppp_dev, &info);
  if (result == 0) channel->ppp_dev = ppp_dev;
  return result;
}

void ppp_channel_free(ppp_channel* channel) noexcept {
  if (channel == nullptr) return;
  if (channel->ppp_dev != nullptr) ppp_detach_channel(channel->ppp_dev);
  // The session's own grace period begins here, so that a reader of the channel still finds its
  // memory, if not a count above 0.
  if (channel->type == ppp_channel_type::l2tp) {
    l2tp_session_put(channel_of<l2tp_channel>(channel)->params.l2tp_session);
  }
  call_rcu(&channel->rcu, free_channel);
}

void ppp_rxstats_upd(net_device* ppp_dev, const sk_buff* skb) noexcept {
  dev_count_rx(ppp_dev, skb->len);
}

void ppp_txstats_upd(net_device* ppp_dev, const sk_buff* skb) noexcept {
  dev_count_tx(ppp_dev, skb->len);
}

}  // extern "C"
