// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ppp_session.h"

#include <cstring>
#include <string>

#include "kernel/wire/transport.h"
#include "stack/fast_path_devices.h"
#include "stack/fast_path_tunnels.h"
#include "stack/router.h"

namespace tarvelo::stack {

namespace {

/// Address, control and protocol, as L2TP sessions always send them.
constexpr u32 full_ppp_length = wire::ppp_framing_length({});

[[noreturn]] void refuse_for_memory(const net_device* dev) {
  throw setup_error(std::string("device \"") + dev->name + "\": no memory for its session");
}

template <typename Params>
Params& params_of(const ppp_session& session) noexcept {
  return *static_cast<Params*>(ppp_channel_params(session.channel));
}

/// Completes a session: its channel becomes that of the interface.
std::unique_ptr<ppp_session> attach(std::unique_ptr<ppp_session> session) {
  if (ppp_channel_attach(session->dev, session->channel) != 0) refuse_for_memory(session->dev);
  session->dev->priv = session.get();
  return session;
}

/// A session object with one reference; null without memory. A tunnel that is begun here belongs to
/// its sessions alone.
l2tp_session* make_l2tp_object(const l2tp_link& link, l2tp_tunnel* tunnel) noexcept {
  const l2tp_session_config config{link.session, link.peer_session, link.send_seq};
  if (tunnel != nullptr) return l2tp_session_alloc(tunnel, &config);
  l2tp_tunnel* fresh = l2tp_tunnel_alloc(link.tunnel, link.peer_tunnel);
  if (fresh == nullptr) return nullptr;
  l2tp_session* session = l2tp_session_alloc(fresh, &config);
  l2tp_tunnel_put(fresh);
  return session;
}

}  // namespace

ppp_session::~ppp_session() {
  dev->priv = nullptr;
  if (channel == nullptr) return;
  if (type() == ppp_channel_type::l2tp) l2tp_session_close(l2tp().l2tp_session);
  fast_path_sweep(*this);
  fast_path_sweep(dev);
  ppp_channel_free(channel);
}

pppoe_params& ppp_session::pppoe() const noexcept {
  return params_of<pppoe_params>(*this);
}

l2tp_params& ppp_session::l2tp() const noexcept {
  return params_of<l2tp_params>(*this);
}

pptp_params& ppp_session::pptp() const noexcept {
  return params_of<pptp_params>(*this);
}

std::unique_ptr<ppp_session> make_session(net_device* dev, const pppoe_link& link,
                                          net_device* parent) {
  pppoe_config config{};
  config.dev = parent;
  config.sid = wire::htons(link.session);
  std::memcpy(config.remote, link.peer_mac.bytes, sizeof config.remote);
  auto session = std::make_unique<ppp_session>(dev);
  pppoe_channel* channel = pppoe_channel_alloc(&config);
  if (channel == nullptr) refuse_for_memory(dev);
  session->channel = &channel->ppp;
  session->lower = parent;
  return attach(std::move(session));
}

std::unique_ptr<ppp_session> make_session(net_device* dev, const l2tp_link& link,
                                          l2tp_tunnel* tunnel) {
  auto session = std::make_unique<ppp_session>(dev);
  l2tp_session* object = make_l2tp_object(link, tunnel);
  if (object == nullptr) refuse_for_memory(dev);
  l2tp_channel* channel = l2tp_channel_alloc(object);
  l2tp_session_put(object);  // the channel holds its own
  if (channel == nullptr) refuse_for_memory(dev);
  channel->params.local_ip = link.local;
  channel->params.remote_ip = link.remote;
  channel->params.local_port = wire::htons(link.local_port);
  channel->params.remote_port = wire::htons(link.remote_port);
  session->channel = &channel->ppp;
  return attach(std::move(session));
}

std::unique_ptr<ppp_session> make_session(net_device* dev, const pptp_link& link) {
  auto session = std::make_unique<ppp_session>(dev);
  pptp_channel* channel = pptp_channel_alloc();
  if (channel == nullptr) refuse_for_memory(dev);
  channel->params.local_ip = link.local;
  channel->params.remote_ip = link.remote;
  channel->params.call_id = wire::htons(link.call);
  channel->params.peer_call_id = wire::htons(link.peer_call);
  if (link.compress_protocol) channel->params.ppp_flags |= pptp_ppp_flag::compress_protocol;
  if (link.omit_address_control) channel->params.ppp_flags |= pptp_ppp_flag::omit_address_control;
  session->channel = &channel->ppp;
  return attach(std::move(session));
}

ppp_session* session_of(const net_device* router_dev) noexcept {
  if (router_dev->type != ARPHRD_PPP) return nullptr;
  return static_cast<ppp_session*>(router_dev->priv);
}

u32 encapsulation_length(const ppp_session& session) noexcept {
  switch (session.type()) {
    case ppp_channel_type::pppoe:
      return wire::pppoe_length;
    case ppp_channel_type::l2tp:
      return wire::ipv4_min_length + static_cast<u32>(sizeof(wire::udphdr)) +
             session.l2tp().l2tp_session->hdr_len + full_ppp_length;
    case ppp_channel_type::pptp:
      return wire::ipv4_min_length + wire::pptp_gre_max_length +
             wire::ppp_framing_length(pptp_ppp_omissions(&session.pptp()));
    case ppp_channel_type::none:
      break;
  }
  return 0;
}

}  // namespace tarvelo::stack
