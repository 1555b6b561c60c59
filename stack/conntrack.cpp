// SPDX-License-Identifier: GPL-2.0-only
#include "stack/conntrack.h"

#include <initializer_list>

#include "kernel/fast_path.h"
#include "stack/conntrack_icmp.h"
#include "stack/conntrack_life.h"
#include "stack/conntrack_tcp.h"
#include "stack/fast_path_report.h"
#include "stack/nat_ports.h"
#include "stack/nat_rewrite.h"
#include "stack/nat_rules.h"
#include "stack/stack_lock.h"
#include "tarvelo/ct_ext.h"

namespace tarvelo::stack {
namespace {

constexpr found_connection no_connection = {nullptr, IP_CT_DIR_ORIGINAL};

[[nodiscard]] ip_conntrack_dir direction_of(const sk_buff* skb) noexcept {
  return skb->nfctinfo >= IP_CT_ESTABLISHED_REPLY ? IP_CT_DIR_REPLY : IP_CT_DIR_ORIGINAL;
}

[[nodiscard]] bool is_related(const sk_buff* skb) noexcept {
  return skb->nfctinfo == IP_CT_RELATED || skb->nfctinfo == IP_CT_RELATED_REPLY;
}

[[nodiscard]] ip_conntrack_info info_of(const nf_conn* ct, ip_conntrack_dir dir) noexcept {
  if (dir == IP_CT_DIR_REPLY) return IP_CT_ESTABLISHED_REPLY;
  return (ct->status & IPS_SEEN_REPLY) != 0 ? IP_CT_ESTABLISHED : IP_CT_NEW;
}

[[nodiscard]] bool is_tcp(const tracked_packet& packet) noexcept {
  return packet.protocol() == wire::ip_protocol::tcp;
}

[[nodiscard]] bool can_begin(const tracked_packet& packet) noexcept {
  if (is_tcp(packet)) return tcp_can_begin(packet);
  return !is_icmp(packet.tuple) || icmp_begins_exchange(packet.tuple);
}

/// Addresses are translated in IPv4 only: IPv6 has enough of them.
[[nodiscard]] bool may_be_translated(const nf_conntrack_tuple& tuple) noexcept {
  return tuple.src.l3num == NFPROTO_IPV4;
}

[[nodiscard]] bool is_reset(const nf_conn* ct) noexcept {
  return ct->tuple[IP_CT_DIR_ORIGINAL].dst.protonum == wire::ip_protocol::tcp &&
         ct->tcp.state == TCP_CONNTRACK_CLOSE;
}

/// The module carries TCP and UDP. A closed connection is not offered to it again: should its path
/// change in the seconds that it has left, late segments would put it back into the caches. Nor is
/// one that the other side has not accepted: what comes from there belongs to an earlier one, and
/// would make this one ripe before it begins.
[[nodiscard]] bool is_reported(const nf_conn* ct, ip_conntrack_dir dir) noexcept {
  const u8 protocol = ct->tuple[IP_CT_DIR_ORIGINAL].dst.protonum;
  if (protocol == wire::ip_protocol::udp) return true;
  if (protocol != wire::ip_protocol::tcp) return false;
  switch (ct->tcp.state) {
    case TCP_CONNTRACK_SYN_SENT:
      return dir == IP_CT_DIR_ORIGINAL;
    case TCP_CONNTRACK_SYN_SENT2:
    case TCP_CONNTRACK_CLOSE:
      return false;
    default:
      return true;
  }
}

/// The packets of a direction as a hook leaves them: the source is translated last.
[[nodiscard]] nf_conntrack_tuple tuple_after(const nf_conn* ct, ip_conntrack_dir dir,
                                             nf_inet_hooks hook) noexcept {
  nf_conntrack_tuple tuple = inverse(ct->tuple[other(dir)]);
  if (hook == NF_INET_PRE_ROUTING) tuple.src = ct->tuple[dir].src;
  return tuple;
}

/// Translates one end of a packet where its connection says so, after the module has been told.
void translate(sk_buff* skb, nf_inet_hooks hook, packet_end end) noexcept {
  const nf_conn* ct = nf_ct_of(skb->nfct);
  const ip_conntrack_dir dir = direction_of(skb);
  if (!is_translated(ct, dir, end)) return;
  const nf_conntrack_tuple translated = tuple_after(ct, dir, hook);
  if (is_reported(ct, dir)) fast_path_report(skb, hook, &translated);
  rewrite_end(packet_span(skb), end, translated_end(ct, dir, end));
}

[[nodiscard]] bool uses_device(const connection& c, const net_device* dev) noexcept {
  for (ip_conntrack_dir dir : {IP_CT_DIR_ORIGINAL, IP_CT_DIR_REPLY}) {
    if (c.in[dir] == dev || c.out[dir] == dev) return true;
  }
  return fast_path_names_device(c.ct, dev);
}

void forget_device(connection& c, const net_device* dev) noexcept {
  for (ip_conntrack_dir dir : {IP_CT_DIR_ORIGINAL, IP_CT_DIR_REPLY}) {
    if (c.in[dir] == dev) c.in[dir] = nullptr;
    if (c.out[dir] == dev) c.out[dir] = nullptr;
  }
  fast_path_forget_device(c.ct, dev);
}

}  // namespace

struct connection_tracker::state {
  nat_rules rules;
  connection_life life;
  source_chooser sources;
  bool live;  ///< new connections get the module's record
  u64 untranslatable = 0;

  state(const router_config& config, const device_lookup& devices)
      : rules(config, devices),
        life(config.table_limits.connections),
        live(read_once(kcih) != nullptr) {}

  [[nodiscard]] found_connection place(const tracked_packet& packet, const net_device* dev);
  [[nodiscard]] tcp_outcome follow(const found_connection& found, const tracked_packet& packet);
  [[nodiscard]] connection* begin(const tracked_packet& packet, const net_device* dev);
  void give_up_fast_path(const tracked_packet& packet);
  [[nodiscard]] track_verdict accept_error(sk_buff* skb, const tracked_packet& packet);
  [[nodiscard]] bool choose_translation(connection& c, const net_device* dev);
  [[nodiscard]] track_verdict confirm(connection& c);
};

/// Finds or makes the connection of a packet. The reference is the caller's. None: drop.
found_connection connection_tracker::state::place(const tracked_packet& packet,
                                                  const net_device* dev) {
  const found_connection found = life.find(packet.tuple);
  if (found.owner == nullptr) return {begin(packet, dev), IP_CT_DIR_ORIGINAL};
  switch (follow(found, packet)) {
    case tcp_outcome::reject:
      give_up_fast_path(packet);
      return no_connection;
    case tcp_outcome::reopen:
      // A buffer that waits may keep the old connection for a while. Its end must say nothing more
      // then: the entries with its addresses would be those of the new one.
      fast_path_forget(found.owner->ct);
      connection_life::end(*found.owner);
      return {begin(packet, dev), IP_CT_DIR_ORIGINAL};
    case tcp_outcome::follow:
      // What the other side has on the way must not prolong the life of a reset connection.
      if (is_reset(found.owner->ct)) fast_path_take_off(found.owner->ct);
      connection_life::refresh(*found.owner);
      break;
    case tcp_outcome::pass:
      break;
  }
  nf_conntrack_get(&found.owner->ct->ct_general);
  return found;
}

tcp_outcome connection_tracker::state::follow(const found_connection& found,
                                              const tracked_packet& packet) {
  const tcp_outcome outcome =
      is_tcp(packet) ? tcp_follow(*found.owner, found.dir, packet) : tcp_outcome::follow;
  if (outcome == tcp_outcome::reject || outcome == tcp_outcome::reopen) return outcome;
  nf_conn* ct = found.owner->ct;
  if (found.dir == IP_CT_DIR_REPLY) {
    nf_ct_set_status(ct, IPS_SEEN_REPLY);
  } else if (!is_tcp(packet) && (ct->status & IPS_SEEN_REPLY) != 0) {
    nf_ct_set_status(ct, IPS_ASSURED);
  }
  return outcome;
}

connection* connection_tracker::state::begin(const tracked_packet& packet, const net_device* dev) {
  if (!can_begin(packet)) return nullptr;
  const std::optional<endpoint> target =
      may_be_translated(packet.tuple) ? rules.forward_target(dev, packet.tuple) : std::nullopt;
  // In the middle of a connection only one without translation can be picked up: which ports it
  // had is lost.
  if (target && is_tcp(packet) && !tcp_is_syn(packet.tcp().flags)) return nullptr;
  connection* c = life.begin(packet.tuple);
  if (c == nullptr) return nullptr;
  if (is_tcp(packet)) tcp_begin(*c, packet);
  nf_conn* ct = c->ct;
  if (target) {
    ct->tuple[IP_CT_DIR_REPLY].src.u3.ip = target->address;
    ct->tuple[IP_CT_DIR_REPLY].src.u = target->port;
    nf_ct_set_status(ct, IPS_DST_NAT);
  }
  ct->helper = rules.helper_of(packet.tuple);
  if (live) fast_path_attach(ct);
  if (ct->vok_ext != nullptr && rules.stays_slow(packet.tuple)) {
    atomic_set_mask(ct_ext_flag::never_add, &ct->vok_ext->flags);
  }
  return c;
}

/// The module takes any FIN or RST for the connection's end and hands back whatever follows. When
/// the segment is dropped here the connection goes on, and has to be cached anew.
void connection_tracker::state::give_up_fast_path(const tracked_packet& packet) {
  if (!packet.has_tuple || !tcp_asks_for_end(packet)) return;
  const found_connection found = life.find(packet.tuple);
  if (found.owner != nullptr) fast_path_take_off(found.owner->ct);
}

track_verdict connection_tracker::state::accept_error(sk_buff* skb, const tracked_packet& packet) {
  const found_connection about = find_related(life.table(), packet.span);
  if (about.owner == nullptr) return track_verdict::drop;
  nf_conn* ct = about.owner->ct;
  nf_conntrack_get(&ct->ct_general);
  skb->nfct = &ct->ct_general;
  skb->nfctinfo = about.dir == IP_CT_DIR_REPLY ? IP_CT_RELATED_REPLY : IP_CT_RELATED;
  translate_error(packet.span, ct, about.dir, packet_end::destination);
  return track_verdict::accept;
}

/// Decides on the source of a new connection that leaves by `dev`. False: it cannot go.
bool connection_tracker::state::choose_translation(connection& c, const net_device* dev) {
  if (!may_be_translated(c.ct->tuple[IP_CT_DIR_ORIGINAL])) return true;
  const std::optional<u32> address = rules.masquerade_address(dev);
  if (!address || *address == c.ct->tuple[IP_CT_DIR_ORIGINAL].src.u3.ip) return true;
  if (c.picked_up) return false;
  if (!sources.choose(life.table(), c.ct, *address)) {
    count_one(untranslatable);
    return false;
  }
  nf_ct_set_status(c.ct, IPS_SRC_NAT);
  return true;
}

track_verdict connection_tracker::state::confirm(connection& c) {
  if (life.confirm(c)) return track_verdict::accept;
  // Another connection has the same answers: this one's would go astray.
  count_one(untranslatable);
  return track_verdict::drop;
}

connection_tracker::connection_tracker(const router_config& config, const device_lookup& devices)
    : state_(std::make_unique<state>(config, devices)) {
  nf_ct_destroy = destroy_connection;
}

connection_tracker::~connection_tracker() {
  const stack_guard guard;
  state_->life.end_all();
}

track_verdict connection_tracker::pre_routing(sk_buff* skb) {
  const tracked_packet packet = examine_packet(skb);
  switch (packet.kind) {
    case packet_kind::broken:
      state_->give_up_fast_path(packet);
      return track_verdict::drop;
    case packet_kind::error:
      return state_->accept_error(skb, packet);
    case packet_kind::flow:
      break;
  }
  const found_connection placed = state_->place(packet, skb->dev);
  if (placed.owner == nullptr) return track_verdict::drop;
  placed.owner->in[placed.dir] = skb->dev;
  skb->nfct = &placed.owner->ct->ct_general;
  skb->nfctinfo = info_of(placed.owner->ct, placed.dir);
  translate(skb, NF_INET_PRE_ROUTING, packet_end::destination);
  return track_verdict::accept;
}

void connection_tracker::lost_before_tracking(const sk_buff* skb) {
  state_->give_up_fast_path(examine_packet(skb));
}

track_verdict connection_tracker::local_in(sk_buff* skb) {
  if (skb->nfct == nullptr || is_related(skb)) return track_verdict::accept;
  nf_conn* ct = nf_ct_of(skb->nfct);
  connection& c = *connection_of(ct);
  // A stray segment to the router itself is no connection to remember for minutes.
  if ((ct->status & IPS_CONFIRMED) != 0 || c.picked_up) return track_verdict::accept;
  return state_->confirm(c);
}

track_verdict connection_tracker::post_routing(sk_buff* skb) {
  if (skb->nfct == nullptr) return track_verdict::accept;
  nf_conn* ct = nf_ct_of(skb->nfct);
  const ip_conntrack_dir dir = direction_of(skb);
  if (is_related(skb)) {
    translate_error(packet_span(skb), ct, dir, packet_end::source);
    return track_verdict::accept;
  }
  connection& c = *connection_of(ct);
  if ((ct->status & IPS_CONFIRMED) == 0) {
    if (!state_->choose_translation(c, skb->dev)) return track_verdict::drop;
    if (state_->confirm(c) == track_verdict::drop) return track_verdict::drop;
  }
  c.out[dir] = skb->dev;
  translate(skb, NF_INET_POST_ROUTING, packet_end::source);
  const bool untranslated = (ct->status & (IPS_SRC_NAT | IPS_DST_NAT)) == 0;
  if (!untranslated || !is_reported(ct, dir)) return track_verdict::accept;
  if (ct->tuple[dir].src.l3num == NFPROTO_IPV6) {
    fast_path_report_ipv6(skb);
  } else {
    fast_path_report(skb, NF_INET_POST_ROUTING, nullptr);
  }
  return track_verdict::accept;
}

void connection_tracker::translate_own_error(sk_buff* error, const sk_buff* about) {
  if (about->nfct == nullptr || is_related(about)) return;
  if (!may_be_translated(nf_ct_of(about->nfct)->tuple[IP_CT_DIR_ORIGINAL])) return;
  restore_own_error(packet_span(error), nf_ct_of(about->nfct), direction_of(about));
}

void connection_tracker::path_changed(const net_device* dev, bool gone) {
  visit_connections([&](connection& c) {
    if (!uses_device(c, dev)) return;
    fast_path_take_off(c.ct);
    if (gone) forget_device(c, dev);
  });
  if (gone) state_->rules.forget_device(dev);
}

void connection_tracker::module_live() {
  const stack_guard guard;
  state_->live = true;
}

void connection_tracker::module_going() {
  const stack_guard guard;
  state_->live = false;
  visit_connections([](connection& c) { fast_path_forget(c.ct); });
}

conntrack_statistics connection_tracker::statistics() const {
  return {.connections = state_->life.table().size(),
          .made = state_->life.confirmed(),
          .refused = state_->life.refused(),
          .untranslatable = read_once(state_->untranslatable)};
}

}  // namespace tarvelo::stack
