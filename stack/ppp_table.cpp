// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ppp_table.h"

#include <algorithm>
#include <string>

#include "kernel/route.h"
#include "kernel/wire/ip.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

/// What every IPv4 link must carry in one piece (RFC 791), bytes.
constexpr u32 least_mtu = 68;

[[noreturn]] void refuse(const net_device* dev, const std::string& why) {
  throw setup_error(std::string("device \"") + dev->name + "\": " + why);
}

/// Enters a session under its key, which must be free.
template <typename Map>
void enter(Map& map, const typename Map::key_type& key, ppp_session* session, const char* what) {
  const auto [place, is_new] = map.emplace(key, session);
  if (!is_new)
    refuse(session->dev, std::string(what) + " is taken by \"" + place->second->dev->name + '"');
}

template <typename Map>
ppp_session* find(const Map& map, const typename Map::key_type& key) noexcept {
  const auto place = map.find(key);
  return place != map.end() ? place->second : nullptr;
}

flowi4 flow_of(const ppp_session& session) noexcept {
  if (session.type() == ppp_channel_type::l2tp) {
    return {session.l2tp().local_ip, session.l2tp().remote_ip, wire::ip_protocol::udp};
  }
  return {session.pptp().local_ip, session.pptp().remote_ip, wire::ip_protocol::gre};
}

/// Notes what the route to a tunnel's other end says: the device, and the time to live.
void take_route(ppp_session& session) {
  const flowi4 flow = flow_of(session);
  rtable* route = ip_route_output_flow(&flow);
  if (route == nullptr) refuse(session.dev, "no route to its other end");
  if (route->rt_type == RTN_UNICAST) session.lower = route->dst.dev;
  const u32 hop_limit = dst_metric_hoplimit(&route->dst);
  dst_release(&route->dst);
  if (session.lower == nullptr) refuse(session.dev, "its other end is not another host");
  if (session.type() != ppp_channel_type::l2tp || hop_limit == 0) return;
  write_once(session.l2tp().ttl, static_cast<u8>(hop_limit));
}

/// A packet that fits the interface must fit the device below with its headers, which are never
/// fragmented.
void fit_mtu(const ppp_session& session) {
  const u32 headers = encapsulation_length(session);
  if (session.lower->mtu < headers + least_mtu) {
    refuse(session.dev, std::string("the MTU of \"") + session.lower->name + "\" is too small");
  }
  session.dev->mtu = std::min(session.dev->mtu, session.lower->mtu - headers);
}

}  // namespace

void ppp_table::add(net_device* dev, const pppoe_link& link, net_device* parent) {
  ppp_session* session = sessions_.emplace_back(make_session(dev, link, parent)).get();
  enter(pppoe_, {parent, wire::htons(link.session)}, session, "the session id");
}

void ppp_table::add(net_device* dev, const l2tp_link& link) {
  ppp_session* session = sessions_.emplace_back(make_session(dev, link, tunnel(link.tunnel))).get();
  enter(l2tp_, {wire::htons(link.tunnel), wire::htons(link.session)}, session, "the session id");
}

void ppp_table::add(net_device* dev, const pptp_link& link) {
  ppp_session* session = sessions_.emplace_back(make_session(dev, link)).get();
  enter(pptp_, {link.local, link.remote, wire::htons(link.call)}, session, "the call id");
}

void ppp_table::settle() {
  for (const auto& session : sessions_)
    settle(*session, 0);
}

/// Lowest first. Each step down is through another tunnel, so more steps than there are sessions
/// have come round in a circle.
void ppp_table::settle(ppp_session& session, std::size_t tunnels_above) {
  if (tunnels_above == sessions_.size()) refuse(session.dev, "its other end is behind itself");
  const bool is_tunnel = session.type() != ppp_channel_type::pppoe;
  if (is_tunnel) take_route(session);
  ppp_session* below = session_of(session.lower);
  if (below != nullptr) settle(*below, tunnels_above + 1);
  core().devices.find_to_change(session.dev)->beneath = session.lower;
  fit_mtu(session);
}

void ppp_table::clear() noexcept {
  pppoe_.clear();
  l2tp_.clear();
  pptp_.clear();
  sessions_.clear();
}

l2tp_tunnel* ppp_table::tunnel(u16 id) const noexcept {
  for (const auto& session : sessions_) {
    if (session->type() != ppp_channel_type::l2tp) continue;
    l2tp_tunnel* present = session->l2tp().l2tp_session->tunnel;
    if (present->tunnel_id == id) return present;
  }
  return nullptr;
}

ppp_session* ppp_table::find_pppoe(const net_device* on, wire::be16 sid) const noexcept {
  return find(pppoe_, {on, sid.raw()});
}

ppp_session* ppp_table::find_l2tp(wire::be16 tunnel, wire::be16 session) const noexcept {
  return find(l2tp_, {tunnel.raw(), session.raw()});
}

ppp_session* ppp_table::find_pptp(wire::be32 local, wire::be32 remote,
                                  wire::be16 call) const noexcept {
  return find(pptp_, {local.raw(), remote.raw(), call.raw()});
}

}  // namespace tarvelo::stack
