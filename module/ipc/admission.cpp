// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/admission.h"

namespace tarvelo {
namespace {

/// The packet's IPv4 header when all of it and the ports behind it are there to be read, and the
/// packet is TCP or UDP; else null.
const wire::iphdr* readable_header(const sk_buff* skb) {
  if (skb->head == nullptr || skb->network_header == 0) return nullptr;
  const u8* linear_end = skb->data + skb_headlen(skb);
  const u8* header = skb_network_header(skb);
  if (header + wire::ipv4_min_length > linear_end) return nullptr;
  const auto* ip = reinterpret_cast<const wire::iphdr*>(header);
  if (ip->version() != 4 || ip->header_length() < wire::ipv4_min_length) return nullptr;
  if (ip->protocol != wire::ip_protocol::tcp && ip->protocol != wire::ip_protocol::udp) {
    return nullptr;
  }
  constexpr u32 ports_length = 2 * sizeof(wire::be16);
  if (header + ip->header_length() + ports_length > linear_end) return nullptr;
  return ip;
}

[[nodiscard]] bool at_destination_nat(unsigned int hooknum) {
  return hooknum == NF_INET_PRE_ROUTING || hooknum == NF_INET_LOCAL_OUT;
}

[[nodiscard]] bool at_source_nat(unsigned int hooknum) {
  return hooknum == NF_INET_POST_ROUTING || hooknum == NF_INET_LOCAL_IN;
}

[[nodiscard]] bool to_or_from_router(unsigned int hooknum) {
  return hooknum == NF_INET_LOCAL_IN || hooknum == NF_INET_LOCAL_OUT;
}

/// What the packet has met so far is kept on the packet, that two translations are needed on the
/// connection.
void note_translations(const add_report& report, vok_ct_ext* ext) {
  u32& met = report.skb->fast_flags;
  if (at_destination_nat(report.hooknum)) met |= fast_flag::met_destination_nat;
  if ((met & fast_flag::met_destination_nat) != 0 && at_source_nat(report.hooknum)) {
    write_once(ext->double_nat, u8{1});
  }
}

[[nodiscard]] u32 marks_for(ip_conntrack_dir direction, bool at_pre_routing) {
  namespace mark = ct_ext_flag;
  if (direction == IP_CT_DIR_ORIGINAL) {
    return mark::original_added |
           (at_pre_routing ? mark::original_at_pre_routing : mark::original_at_post_routing);
  }
  return mark::reply_added |
         (at_pre_routing ? mark::reply_at_pre_routing : mark::reply_at_post_routing);
}

/// A later fragment has no ports; what stands in their place is data.
[[nodiscard]] bool has_ports(const wire::iphdr* ip) {
  return (ip->frag_off.host() & wire::ip_frag::offset_mask) == 0;
}

}  // namespace

void count_add_call(vok_ct_ext* ext) {
  write_once(ext->add_calls, read_once(ext->add_calls) + 1);
}

void note_direction(sk_buff* skb, int ctinfo) {
  if (ctinfo >= IP_CT_ESTABLISHED && ctinfo <= IP_CT_NEW) {
    skb->fast_flags |= fast_flag::original_direction;
  }
}

bool kept_off_fast_path(const sk_buff* skb, const nf_conn* ct) {
  return skb->dev == nullptr || skb->rx_dev == nullptr ||
         (skb->fast_flags & fast_flag::never_add) != 0 || nf_ct_has_helper(ct) ||
         (read_once(ct->vok_ext->flags) & ct_ext_flag::never_add) != 0;
}

bool serves_state(int ctinfo) {
  return ctinfo == IP_CT_ESTABLISHED || ctinfo == IP_CT_NEW || ctinfo == IP_CT_ESTABLISHED_REPLY;
}

ip_conntrack_dir direction_of(int ctinfo) {
  return ctinfo == IP_CT_ESTABLISHED_REPLY ? IP_CT_DIR_REPLY : IP_CT_DIR_ORIGINAL;
}

bool tcp_is_ending(const nf_conn* ct) {
  const u8 state = nf_ct_tcp_state(ct);
  return state >= TCP_CONNTRACK_FIN_WAIT && state <= TCP_CONNTRACK_TIME_WAIT;
}

bool admit(const add_report& report, admitted* result) {
  if (report.ct == nullptr || report.ct->vok_ext == nullptr) return false;
  vok_ct_ext* ext = report.ct->vok_ext;
  count_add_call(ext);

  const wire::iphdr* ip = readable_header(report.skb);
  if (ip == nullptr) return false;
  note_translations(report, ext);
  if (to_or_from_router(report.hooknum)) return false;
  note_direction(report.skb, report.ctinfo);
  if (kept_off_fast_path(report.skb, report.ct) || read_once(ext->double_nat) != 0) return false;

  const bool at_pre_routing = report.hooknum == NF_INET_PRE_ROUTING;
  if (!at_pre_routing && report.hooknum != NF_INET_POST_ROUTING) return false;
  if (!serves_state(report.ctinfo)) return false;
  const ip_conntrack_dir direction = direction_of(report.ctinfo);
  const u32 marks = marks_for(direction, at_pre_routing);
  if ((read_once(ext->flags) & marks) == marks) return false;
  if (ip->protocol == wire::ip_protocol::tcp && tcp_is_ending(report.ct)) return false;
  if (!has_ports(ip)) return false;

  const auto* ports =
      reinterpret_cast<const wire::be16*>(reinterpret_cast<const u8*>(ip) + ip->header_length());
  *result = {ip, ports[0].raw(), ports[1].raw(), ext, direction, marks};
  return true;
}

}  // namespace tarvelo
