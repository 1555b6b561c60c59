// SPDX-License-Identifier: GPL-2.0-only
#include "stack/icmp.h"

#include <algorithm>
#include <cstring>

#include "stack/checksum.h"
#include "stack/ip_output.h"
#include "stack/ip_packet.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

/// An error is at most this long with its IP header (RFC 1812, 4.3.2.3), bytes: every host takes
/// it.
constexpr u32 max_error_length = 576;
constexpr u32 error_headers = wire::ipv4_min_length + sizeof(wire::icmphdr);
/// Precedence "internetwork control" (RFC 1812, 4.3.2.5).
constexpr u8 error_tos = 0xC0;

/// ICMP messages that may be answered with an error are the queries; what is not known to be one
/// may be an error.
bool is_icmp_query(u8 type) noexcept {
  return type == wire::icmp_type::echo_request || type == wire::icmp_type::echo_reply;
}

bool may_be_answered(const sk_buff* about) noexcept {
  const wire::iphdr* ip = ip_header(about);
  if (about->rx_dev == nullptr) return false;
  if (is_later_fragment(ip)) return false;
  if (!is_single_host(ip->saddr.raw()) || !is_single_host(ip->daddr.raw())) return false;
  if (ip->protocol != wire::ip_protocol::icmp) return true;

  const u32 header_length = ip->header_length();
  if (about->len <= header_length) return false;
  return is_icmp_query(about->data[header_length]);
}

/// The router's address that the packet's sender faces; 0 when it has none.
u32 error_source(const sk_buff* about) noexcept {
  const u32 sender = ip_header(about)->saddr.raw();
  const u32 facing = core().devices.source_address(about->rx_dev, sender);
  if (facing != 0) return facing;
  for (const auto& record : core().devices.all()) {
    if (!record->addresses.empty()) return record->addresses.front().address;
  }
  return 0;
}

void write_ip_header(wire::iphdr* ip, u32 saddr, u32 daddr, u32 length) noexcept {
  *ip = {};
  ip->version_ihl = 0x45;
  ip->tos = error_tos;
  ip->tot_len = wire::be16(static_cast<u16>(length));
  ip->id = wire::be16(core().next_datagram_id++);
  ip->ttl = static_cast<u8>(sysctl_ip_default_ttl);
  ip->protocol = wire::ip_protocol::icmp;
  ip->saddr = wire::be32::from_raw(saddr);
  ip->daddr = wire::be32::from_raw(daddr);
  ip_send_check(ip);
}

/// The error's buffer, complete; null without memory.
sk_buff* build_error(const sk_buff* about, icmp_error what, u32 source) noexcept {
  const u32 quoted = std::min(about->len, max_error_length - error_headers);
  sk_buff* error = alloc_packet(error_headers + quoted);
  if (error == nullptr) return nullptr;

  auto* ip = reinterpret_cast<wire::iphdr*>(skb_put(error, error_headers + quoted));
  auto* icmp = reinterpret_cast<wire::icmphdr*>(error->data + wire::ipv4_min_length);
  write_ip_header(ip, source, ip_header(about)->saddr.raw(), error->len);
  *icmp = {};
  icmp->type = what.type;
  icmp->code = what.code;
  icmp->sequence = wire::be16(what.mtu);
  std::memcpy(error->data + error_headers, about->data, quoted);
  icmp->checksum = wire::be16::from_raw(
      checksum_finish(checksum_add(icmp, static_cast<u32>(sizeof *icmp) + quoted)));
  mark_ip_packet(error);
  return error;
}

/// Turns a request into its reply, in place, without the options of the request.
void make_echo_reply(sk_buff* skb) noexcept {
  const wire::iphdr request = *ip_header(skb);
  skb_pull(skb, request.header_length() - wire::ipv4_min_length);
  auto* ip = reinterpret_cast<wire::iphdr*>(skb->data);
  write_ip_header(ip, request.daddr.raw(), request.saddr.raw(), skb->len);
  ip->tos = request.tos;
  ip_send_check(ip);
  mark_ip_packet(skb);

  auto* icmp = reinterpret_cast<wire::icmphdr*>(skb_transport_header(skb));
  icmp->type = wire::icmp_type::echo_reply;
  icmp->checksum = wire::be16(0);
  icmp->checksum =
      wire::be16::from_raw(checksum_finish(checksum_add(icmp, skb->len - wire::ipv4_min_length)));
}

}  // namespace

receive_verdict send_icmp_error(const sk_buff* about, icmp_error what) {
  if (!may_be_answered(about)) return receive_verdict::dropped;
  const u32 source = error_source(about);
  if (source == 0) return receive_verdict::dropped;
  if (!core().error_limit.spend(jiffies)) return receive_verdict::dropped;

  sk_buff* error = build_error(about, what, source);
  if (error == nullptr) return receive_verdict::dropped;
  // A packet that tracking has not seen yet still shows what its sender wrote.
  if (about->nfct != nullptr) core().tracker->translate_own_error(error, about);
  const receive_verdict sent = send_own_packet(error);
  if (sent == receive_verdict::slow) ++core().icmp_errors_sent;
  return sent;
}

receive_verdict reject(sk_buff* skb, icmp_error what) {
  const receive_verdict verdict = send_icmp_error(skb, what);
  kfree_skb(skb);
  return verdict;
}

receive_verdict deliver_icmp(sk_buff* skb) {
  const u32 header_length = ip_header(skb)->header_length();
  const u32 length = skb->len - header_length;
  if (length < sizeof(wire::icmphdr)) return discard(skb);
  if (!checksum_holds(skb->data + header_length, length)) return discard(skb);

  const auto* icmp = reinterpret_cast<const wire::icmphdr*>(skb->data + header_length);
  if (icmp->type != wire::icmp_type::echo_request || icmp->code != 0) return discard(skb);

  make_echo_reply(skb);
  // The reply is the router's own: it has not come in by any device, and is not part of the
  // packet's way through tracking.
  nf_reset(skb);
  skb_dst_drop(skb);
  skb->rx_dev = nullptr;
  return send_own_packet(skb);
}

}  // namespace tarvelo::stack
