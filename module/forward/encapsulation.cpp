// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/encapsulation.h"

#include "kernel/ppp_channel.h"
#include "kernel/wire/gre.h"
#include "module/forward/build_l2tp.h"
#include "module/forward/build_pppoe.h"
#include "module/forward/build_pptp.h"
#include "module/forward/ppp_account.h"
#include "module/forward/vlan_tag.h"

namespace tarvelo {
namespace {

/// More than any tunnel needs, so that what stands below the tunnel finds room as well.
constexpr u32 tunnel_headroom = 64;

[[nodiscard]] bool is_tunnel_of(const tunnel_header& tunnel, const passage& way) {
  return (tunnel.kind == tunnel_kind::pptp) == way.has(ipc_flag::pptp_in) &&
         (tunnel.kind == tunnel_kind::l2tp) == way.has(ipc_flag::l2tp_in);
}

fate check_pppoe_session(const sk_buff* skb, const arrival& in, const passage& way) {
  const u32 pppoe = in.link.l3 - wire::pppoe_length;
  const u16 sid = header_at<const wire::pppoe_hdr>(skb, pppoe)->sid.raw();
  const u16 expected = way.has(ipc_flag::pppoe_in) ? way.pppoe_sid : way.pppoe_sid_in;
  return sid != pppoe_no_session && sid == expected ? fate::forward : fate::other_session;
}

/// The key of a received GRE packet is the call's own id.
fate check_pptp_call(const sk_buff* skb, const arrival& in, const passage& way) {
  const auto* gre = header_at<const wire::pptp_gre_hdr>(skb, in.tunnel.header);
  const auto* call = static_cast<const pptp_params*>(way.session);
  return gre->call_id.raw() == call->call_id ? fate::forward : fate::other_session;
}

/// The tag that the frame gets now or last: only for a VLAN device whose slot says where to send.
void choose_vlan(const passage& way, wrapping_plan* plan) {
  plan->vlan_below = nullptr;
  plan->vid = 0;
  if (!is_vlan_dev(way.sendif)) return;
  const vok_ct_ext_vlan& slot = way.ext->vlan[way.dir];
  plan->vlan_below = read_once(slot.real_dev);
  plan->vid = read_once(slot.vid);
}

[[nodiscard]] u32 built_length(const passage& way, bool acknowledges) {
  if (way.has(ipc_flag::pppoe_out)) return wire::pppoe_length;
  if (way.has(ipc_flag::pptp_out)) {
    return pptp_stack_length(static_cast<const pptp_params*>(way.session), acknowledges);
  }
  if (way.has(ipc_flag::l2tp_out)) {
    return l2tp_stack_length(static_cast<const l2tp_params*>(way.session)->l2tp_session);
  }
  return 0;
}

/// Neither as it came nor as it leaves may the frame be longer than the output device takes. A
/// pushed header counts as part of what came.
[[nodiscard]] bool is_too_long(const sk_buff* skb, const arrival& in, const passage& way,
                               const wrapping_plan& plan) {
  u32 overhead = in.link.link_length();
  if (way.has(ipc_flag::pppoe_in)) overhead += wire::pppoe_length;
  if (in.link.pushed) overhead = 0;
  if (skb->len - overhead > way.sendif->mtu) return true;
  if (skb->len - plan.kept + plan.built > way.sendif->mtu) return true;
  return way.ppp_mtu != 0 && skb->len - in.l3 > way.ppp_mtu;
}

/// Bookkeeping on the tunnel's header while it is still there.
void note_tunnel_input(const sk_buff* skb, const arrival& in, const passage& way) {
  if (way.has(ipc_flag::pptp_in)) {
    pptp_note_received(static_cast<pptp_params*>(way.session),
                       header_at<const wire::pptp_gre_hdr>(skb, in.tunnel.header));
  } else if (way.has(ipc_flag::l2tp_in)) {
    note_l2tp_input(skb, in.tunnel.header, static_cast<l2tp_params*>(way.session)->l2tp_session);
  }
}

/// The data begins where the new link-layer header goes.
void strip(sk_buff* skb, const wrapping_plan& plan) {
  if (plan.kept >= plan.link) {
    skb_pull(skb, plan.kept - plan.link);
  } else {
    skb_push(skb, plan.link - plan.kept);
  }
}

/// Puts PPPoE or tunnel headers behind the link-layer header. The EtherType that names them.
[[nodiscard]] u16 build(sk_buff* skb, const arrival& in, const passage& way,
                        const wrapping_plan& plan) {
  const bool ipv4 = in.link.ip == family::ipv4;
  if (plan.built == 0) return ipv4 ? wire::ethertype::ipv4 : wire::ethertype::ipv6;
  skb_push(skb, plan.built);
  if (way.has(ipc_flag::pppoe_out)) {
    build_pppoe(skb, plan.link, way.pppoe_sid,
                ipv4 ? wire::ppp_protocol::ipv4 : wire::ppp_protocol::ipv6);
    return wire::ethertype::pppoe_session;
  }
  if (way.has(ipc_flag::pptp_out)) {
    build_pptp(skb, plan.link, static_cast<pptp_params*>(way.session), plan.acknowledges);
  } else {
    build_l2tp(skb, plan.link, static_cast<l2tp_params*>(way.session));
  }
  return wire::ethertype::ipv4;
}

void write_type(sk_buff* skb, const wrapping_plan& plan, u16 type) {
  header_at<wire::be16>(skb, plan.link - u32{sizeof(wire::be16)})[0] = wire::be16(type);
  if (!plan.tags) return;
  auto* header = header_at<wire::vlan_ethhdr>(skb, 0);
  header->h_vlan_proto = wire::be16(wire::ethertype::vlan);
  // The priority that the frame came with: the one it will have is set later.
  header->h_vlan_TCI = wire::be16(tag_control(plan.vid, skb->priority));
}

void leave_by_vlan(sk_buff* skb, const passage& way, const wrapping_plan& plan) {
  dev_count_tx(way.sendif, skb->len);
  choose_vlan_slot(skb, way.dir);
  skb->fast_flags |= fast_flag::tag_written;
  skb->dev = plan.vlan_below;
}

void relabel(sk_buff* skb, const passage& way, const wrapping_plan& plan) {
  header_at<wire::pppoe_hdr>(skb, plan.link)->sid = wire::be16::from_raw(way.pppoe_sid);
}

}  // namespace

fate check_arrival(const sk_buff* skb, const arrival& in, const passage& way) {
  if (in.link.pushed && way.has(ipc_mode::any)) return fate::encapsulation;
  if (!is_tunnel_of(in.tunnel, way)) return fate::encapsulation;
  if (in.link.is_pppoe() ? !way.has(ipc_mode::expects_pppoe) : way.has(ipc_mode::pppoe_received)) {
    return fate::encapsulation;
  }
  if (way.has(ipc_mode::pppoe_received)) return check_pppoe_session(skb, in, way);
  if (way.has(ipc_flag::pptp_in)) return check_pptp_call(skb, in, way);
  return fate::forward;
}

fate plan_wrapping(const sk_buff* skb, const arrival& in, const passage& way, wrapping_plan* plan) {
  choose_vlan(way, plan);
  plan->tags = plan->vlan_below != nullptr && way.has(ipc_mode::rewrapped);
  plan->acknowledges =
      way.has(ipc_flag::pptp_out) && pptp_has_ack(static_cast<const pptp_params*>(way.session));
  plan->kept = way.has(ipc_flag::pppoe_in_out) ? in.l3 - wire::pppoe_length : in.l3;
  plan->link = plan->tags ? wire::tagged_ethernet_length : wire::ethernet_length;
  plan->built = built_length(way, plan->acknowledges);
  if (is_too_long(skb, in, way, *plan)) return fate::too_long;

  const u32 link =
      plan->vlan_below != nullptr ? wire::tagged_ethernet_length : wire::ethernet_length;
  const u32 needed = link + plan->built;
  plan->growth = needed > plan->kept ? needed - plan->kept : 0;
  if (way.has(ipc_mode::tunnel_out) && plan->growth < tunnel_headroom) {
    plan->growth = tunnel_headroom;
  }
  return skb_headroom(skb) >= plan->growth ? fate::forward : fate::no_headroom;
}

u32 rewrap(sk_buff* skb, const arrival& in, const passage& way, const wrapping_plan& plan) {
  note_tunnel_input(skb, in, way);
  strip(skb, plan);
  if (way.has(ipc_mode::stripped)) account_received(skb, way);
  if (way.has(ipc_mode::rewrapped)) write_type(skb, plan, build(skb, in, way, plan));
  if (way.has(ipc_flag::pppoe_in_out)) relabel(skb, way, plan);
  if (way.has(ipc_mode::built | ipc_flag::pppoe_in_out)) account_sent(skb, way);
  skb->dev = way.sendif;
  if (plan.tags) leave_by_vlan(skb, way, plan);
  return plan.link + plan.built + (in.l3 - plan.kept);
}

}  // namespace tarvelo
