// SPDX-License-Identifier: GPL-2.0-only
#include "tests/module/ppp_scene.h"

#include <algorithm>
#include <new>
#include <stdexcept>

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u32 pppoe_mtu = 1492;
constexpr u32 tunnel_mtu = 1440;
constexpr u16 inside_vlan = 20;
constexpr u8 inside_priority = 5;
constexpr u16 l2tp_plain = 0x0002, l2tp_with_sequence = 0x0802;

template <typename Made>
Made* made(Made* object) {
  if (object == nullptr) throw std::bad_alloc();
  return object;
}

}  // namespace

vlan_device::vlan_device(const char* name, net_device* below, u16 vid)
    : dev_(made(vlan_dev_alloc(name, below, vid, VLAN_FLAG_REORDER_HDR))) {
  if (register_netdevice(dev_) != 0) throw std::runtime_error("cannot register a VLAN device");
  dev_open(dev_);
}

ppp_interface::ppp_interface(const char* name, ppp_channel* channel, u32 mtu)
    : dev(name, "00:00:00:00:00:00", ARPHRD_PPP),
      channel_(channel),
      far_end_("0.0.0.0", dev, "00:00:00:00:00:00", NUD_NOARP) {
  dev->mtu = mtu;
  if (ppp_channel_attach(dev, channel_) != 0) throw std::runtime_error("cannot attach a channel");
}

ppp_interface::~ppp_interface() {
  if (kcih != nullptr) {
    if (session_ != nullptr) kcih->session_delete_ipc(kcih, session_);
    (void)kcih->_vok_ipc_delete_by_dev(kcih, dev);
  }
  ppp_channel_free(channel_);
  if (session_ != nullptr) l2tp_session_put(session_);
}

ppp_interface* ppp_interface::pppoe(const char* name, net_device* below, u16 sid,
                                    const char* peer_mac) {
  pppoe_config config = {below, wire::htons(sid), {}};
  const mac remote = mac_of(peer_mac);
  std::copy(std::begin(remote.at), std::end(remote.at), config.remote);
  return new ppp_interface(name, &made(pppoe_channel_alloc(&config))->ppp, pppoe_mtu);
}

ppp_interface* ppp_interface::pptp(const char* name, endpoint local, endpoint remote) {
  pptp_channel* channel = made(pptp_channel_alloc());
  channel->params.local_ip = ip4(local.address);
  channel->params.remote_ip = ip4(remote.address);
  channel->params.call_id = wire::htons(local.port);
  channel->params.peer_call_id = wire::htons(remote.port);
  return new ppp_interface(name, &channel->ppp, tunnel_mtu);
}

ppp_interface* ppp_interface::l2tp(const char* name, endpoint local, endpoint remote, u16 first_id,
                                   bool send_seq) {
  l2tp_tunnel* tunnel =
      made(l2tp_tunnel_alloc(first_id, static_cast<u16>(first_id + peer_tunnel_step)));
  const l2tp_session_config config = {static_cast<u16>(first_id + session_step),
                                      static_cast<u16>(first_id + peer_session_step), send_seq};
  l2tp_session* session = made(l2tp_session_alloc(tunnel, &config));
  l2tp_tunnel_put(tunnel);
  l2tp_channel* channel = made(l2tp_channel_alloc(session));
  channel->params.local_ip = ip4(local.address);
  channel->params.remote_ip = ip4(remote.address);
  channel->params.local_port = wire::htons(local.port);
  channel->params.remote_port = wire::htons(remote.port);
  auto* ppp = new ppp_interface(name, &channel->ppp, tunnel_mtu);
  ppp->session_ = session;
  return ppp;
}

void ppp_scene::set_up(side in, side out, bool vlan_out, bool send_seq) {
  in_ = in;
  out_ = out;
  if (vlan_out) {
    vlan_ = std::make_unique<vlan_device>("wan0.7", wan, vlan_below_upstream);
    vlan_gateway_ = std::make_unique<scoped_neighbour>("203.0.113.1", *vlan_, gateway_mac);
  }
  if (in == side::pppoe) in_ppp_.reset(ppp_interface::pppoe("ppp0", lan, inside_sid, host_mac));
  if (in == side::pptp) {
    in_ppp_.reset(ppp_interface::pptp("ppp0", inside_tunnel_local, inside_tunnel_remote));
  }
  if (in == side::l2tp) {
    in_ppp_.reset(
        ppp_interface::l2tp("ppp0", inside_tunnel_local, inside_tunnel_remote, inside_ids));
  }
  if (out == side::pppoe) {
    out_ppp_.reset(ppp_interface::pppoe("ppp1", carrier(), upstream_sid, session_mac));
  }
  if (out == side::pptp) {
    out_ppp_.reset(ppp_interface::pptp("ppp1", upstream_tunnel_local, upstream_tunnel_remote));
  }
  if (out == side::l2tp) {
    out_ppp_.reset(ppp_interface::l2tp("ppp1", upstream_tunnel_local, upstream_tunnel_remote,
                                       upstream_ids, send_seq));
  }
  tunnel_route_.emplace("192.0.2.1", 32, "203.0.113.1", carrier());
  if (out == side::plain) {
    peer_route_.emplace(peer.address, 32, "203.0.113.1", carrier());
  } else {
    peer_route_.emplace(peer.address, 32, "0.0.0.0", out_ppp_->dev);
  }
}

net_device* ppp_scene::input() const {
  return in_ppp_ != nullptr ? in_ppp_->dev.get() : lan.get();
}

net_device* ppp_scene::carrier() const {
  return vlan_ != nullptr ? static_cast<net_device*>(*vlan_) : wan.get();
}

void ppp_scene::connect() {
  report r = source_nat(ct, tcp, false);
  r.dev = out_ppp_ != nullptr ? out_ppp_->dev.get() : carrier();
  r.rx_dev = input();
  ripen(r);
}

packet ppp_scene::arriving(bool tagged) const {
  packet p;
  p.eth(lan_mac, host_mac);
  if (tagged) p.vlan(inside_vlan, inside_priority);
  const auto outer = [&p]() -> packet& {
    return p.ipv4(inside_tunnel_remote.address, inside_tunnel_local.address);
  };
  switch (in_) {
    case side::plain:
      return p;
    case side::pppoe:
      return p.pppoe(inside_sid);
    case side::l2tp:
      return outer()
          .udp(inside_tunnel_remote.port, inside_tunnel_local.port)
          .no_checksum()
          .l2tp(l2tp_plain, inside_ids, inside_ids + session_step)
          .ppp();
    case side::pptp:
      return outer().gre(inside_tunnel_local.port, 0).ppp();
  }
  return p;
}

packet ppp_scene::leaving(u8 tag_priority) const {
  packet p;
  p.eth(out_ == side::pppoe ? session_mac : gateway_mac, wan_mac);
  if (vlan_ != nullptr) p.vlan(vlan_below_upstream, tag_priority);
  const auto outer = [&p]() -> packet& {
    return p.ipv4(upstream_tunnel_local.address, upstream_tunnel_remote.address)
        .dont_fragment()
        .ttl(64);
  };
  switch (out_) {
    case side::plain:
      return p;
    case side::pppoe:
      return p.pppoe(upstream_sid);
    case side::l2tp: {
      const bool numbered = out_ppp_->session()->send_seq != 0;
      return outer()
          .udp(upstream_tunnel_local.port, upstream_tunnel_remote.port)
          .no_checksum()
          .l2tp(numbered ? l2tp_with_sequence : l2tp_plain, upstream_ids + peer_tunnel_step,
                upstream_ids + peer_session_step)
          .ppp();
    }
    case side::pptp:
      return outer().gre(upstream_tunnel_remote.port, next_seq_).ppp();
  }
  return p;
}

packet ppp_scene::with_inner(packet outer, bool is_translated, std::size_t payload) {
  const endpoint from = is_translated ? translated : inside;
  outer.ipv4(from.address, peer.address).tos(0x60).tcp(from.port, peer.port);
  return outer.flags(wire::tcp_flag::ack).seq(1000, 2000).payload(payload);
}

ipc_entry* ppp_scene::entry() {
  return kcih->_vok_ipc_lkup(kcih, ip4(inside.address), ip4(peer.address), tcp,
                             wire::htons(inside.port), wire::htons(peer.port), 0);
}

}  // namespace tarvelo::test
