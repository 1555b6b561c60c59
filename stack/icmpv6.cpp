// SPDX-License-Identifier: GPL-2.0-only
#include "stack/icmpv6.h"

#include <algorithm>
#include <cstring>

#include "stack/checksum.h"
#include "stack/ip_packet.h"
#include "stack/ipv6_output.h"
#include "stack/ipv6_packet.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

/// An error is at most this long with its IPv6 header (RFC 4443, 2.4 c), bytes: every link takes
/// it.
constexpr u32 max_error_length = 1280;
constexpr u32 error_headers = wire::ipv6_length + sizeof(wire::icmphdr);
/// Types from here on are informational.
constexpr u8 first_informational = 128;

bool may_be_answered(const sk_buff* about) noexcept {
  const wire::ipv6hdr& ip = *ipv6_header(about);
  if (about->rx_dev == nullptr) return false;
  if (!is_single_host(ip.saddr) || !is_single_host(ip.daddr)) return false;
  const std::optional<ipv6_chain> chain = read_ipv6_chain(about->data, about->len);
  if (!chain || chain->is_later_fragment) return false;
  if (chain->protocol != wire::ip_protocol::icmpv6) return true;
  if (about->len <= chain->transport) return false;
  const u8 type = about->data[chain->transport];
  return type >= first_informational && type != wire::icmpv6_type::redirect;
}

/// The error's buffer, complete; null without memory.
sk_buff* build_error(const sk_buff* about, icmpv6_error what,
                     const wire::in6_addr& source) noexcept {
  const u32 quoted = std::min(about->len, max_error_length - error_headers);
  sk_buff* error = alloc_packet(error_headers + quoted);
  if (error == nullptr) return nullptr;

  auto* ip = reinterpret_cast<wire::ipv6hdr*>(skb_put(error, error_headers + quoted));
  write_ipv6_header(ip, source, ipv6_header(about)->saddr, wire::ip_protocol::icmpv6,
                    error->len - wire::ipv6_length);
  auto* icmp = reinterpret_cast<wire::icmphdr*>(error->data + wire::ipv6_length);
  *icmp = {};
  icmp->type = what.type;
  icmp->code = what.code;
  icmp->id = wire::be16(static_cast<u16>(what.value >> 16));
  icmp->sequence = wire::be16(static_cast<u16>(what.value));
  std::memcpy(error->data + error_headers, about->data, quoted);
  sum_icmpv6(ip);
  mark_ipv6_packet(error, wire::ipv6_length);
  return error;
}

/// Turns a request into its reply, in place, without the extension headers of the request.
void make_echo_reply(sk_buff* skb) noexcept {
  const wire::ipv6hdr request = *ipv6_header(skb);
  skb_pull(skb, u32{skb->transport_header} - skb->network_header);
  const u32 length = skb->len;
  auto* ip = reinterpret_cast<wire::ipv6hdr*>(skb_push(skb, wire::ipv6_length));
  write_ipv6_header(ip, request.daddr, request.saddr, wire::ip_protocol::icmpv6, length);
  skb->data[wire::ipv6_length] = wire::icmpv6_type::echo_reply;
  sum_icmpv6(ip);
  mark_ipv6_packet(skb, wire::ipv6_length);
}

}  // namespace

void sum_icmpv6(wire::ipv6hdr* ip) noexcept {
  auto* icmp = reinterpret_cast<wire::icmphdr*>(ip + 1);
  const u16 length = ip->payload_len.host();
  icmp->checksum = wire::be16(0);
  const u32 sum = pseudo_header_sum(ip->saddr, ip->daddr, wire::ip_protocol::icmpv6, length);
  icmp->checksum = wire::be16::from_raw(checksum_finish(checksum_add(icmp, length, sum)));
}

receive_verdict send_icmpv6_error(const sk_buff* about, icmpv6_error what) {
  if (!may_be_answered(about)) return receive_verdict::dropped;
  const wire::in6_addr source =
      core().devices.source_address(about->rx_dev, ipv6_header(about)->saddr);
  if (is_unspecified(source)) return receive_verdict::dropped;
  if (!core().error_limit.spend(jiffies)) return receive_verdict::dropped;

  sk_buff* error = build_error(about, what, source);
  if (error == nullptr) return receive_verdict::dropped;
  const receive_verdict sent = send_own_ipv6_packet(error, about->rx_dev);
  if (sent == receive_verdict::slow) ++core().icmp_errors_sent;
  return sent;
}

receive_verdict reject_ipv6(sk_buff* skb, icmpv6_error what) {
  const receive_verdict verdict = send_icmpv6_error(skb, what);
  kfree_skb(skb);
  return verdict;
}

receive_verdict deliver_icmpv6(sk_buff* skb) {
  // Tracking has seen to the length and the checksum.
  const auto* icmp = reinterpret_cast<const wire::icmphdr*>(skb_transport_header(skb));
  if (icmp->type != wire::icmpv6_type::echo_request || icmp->code != 0) return discard(skb);

  net_device* link = skb->rx_dev;
  make_echo_reply(skb);
  // The reply is the router's own: it has not come in by any device, and is not part of the
  // packet's way through tracking.
  nf_reset(skb);
  skb_dst_drop(skb);
  skb->rx_dev = nullptr;
  return send_own_ipv6_packet(skb, link);
}

}  // namespace tarvelo::stack
