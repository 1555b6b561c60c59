// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ipv6_input.h"

#include <utility>

#include "kernel/route6.h"
#include "stack/icmpv6.h"
#include "stack/ipv6_forward.h"
#include "stack/ipv6_packet.h"
#include "stack/nd.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

/// A next header that says that nothing follows.
constexpr u8 no_next_header = 59;

/// The header's own claims against what is there. Cuts the buffer to the packet and marks it.
std::optional<ipv6_chain> check_headers(sk_buff* skb) noexcept {
  if (skb_headlen(skb) < wire::ipv6_length) return std::nullopt;
  const auto& ip = *reinterpret_cast<const wire::ipv6hdr*>(skb->data);
  if (ip.version() != 6) return std::nullopt;
  const u32 length = wire::ipv6_length + ip.payload_len.host();
  if (length > skb->len) return std::nullopt;
  skb_trim(skb, length);
  const std::optional<ipv6_chain> chain = read_ipv6_chain(skb->data, skb->len);
  if (chain) mark_ipv6_packet(skb, chain->transport);
  return chain;
}

bool is_nd(const sk_buff* skb, const ipv6_chain& chain) noexcept {
  if (chain.protocol != wire::ip_protocol::icmpv6 || chain.fragment != 0) return false;
  if (skb->len <= chain.transport) return false;
  const u8 type = skb->data[chain.transport];
  return type >= wire::icmpv6_type::router_solicitation && type <= wire::icmpv6_type::redirect;
}

/// True for the router's own address as seen from the packet's link: a link-local one is known on
/// its own device only.
bool is_for_router(const sk_buff* skb) noexcept {
  const wire::in6_addr& to = ipv6_header(skb)->daddr;
  const device_table& devices = core().devices;
  return is_link_local(to) ? devices.has_address(skb->dev, to) : devices.is_own(to);
}

bool source_is_sound(const sk_buff* skb) noexcept {
  const wire::in6_addr& from = ipv6_header(skb)->saddr;
  if (!is_single_host(from)) return false;
  return is_link_local(from) ? !core().devices.has_address(skb->dev, from)
                             : !core().devices.is_own(from);
}

/// Takes a tracked packet for the router itself.
receive_verdict deliver_ipv6_locally(sk_buff* skb, const ipv6_chain& chain) {
  if (core().tracker->local_in(skb) == track_verdict::drop) return discard(skb);
  switch (chain.protocol) {
    case wire::ip_protocol::icmpv6:
      return deliver_icmpv6(skb);
    case wire::ip_protocol::tcp:
    case wire::ip_protocol::udp:
      return reject_ipv6(skb, icmpv6_error::port_unreachable());
    case no_next_header:
      return discard(skb);
    default:
      return reject_ipv6(skb, icmpv6_error::unknown_next_header(chain.announced_at));
  }
}

/// Takes a tracked packet for another host. `originals`, when there are any, are the fragments that
/// it was put together from.
receive_verdict route_ipv6_packet(sk_buff* skb, packet_chain originals) {
  const wire::ipv6hdr& ip = *ipv6_header(skb);
  if (is_link_local(ip.saddr) || is_link_local(ip.daddr)) return discard(skb);
  if (ip6_route_input(skb, &ip.daddr) != 0) {
    return reject_ipv6(skb, icmpv6_error::no_route());
  }
  switch (reinterpret_cast<const rt6_info*>(skb_dst(skb))->rt_type) {
    case RTN_UNICAST:
      return forward_ipv6_packet(skb, std::move(originals));
    case RTN_UNREACHABLE:
      return reject_ipv6(skb, icmpv6_error::address_unreachable());
    default:
      return discard(skb);
  }
}

/// Tracks a whole packet and sends it on its way.
receive_verdict pass_on(sk_buff* skb, packet_chain originals) {
  const std::optional<ipv6_chain> chain = read_ipv6_chain(skb->data, skb->len);
  if (!chain) return discard(skb);
  mark_ipv6_packet(skb, chain->transport);
  if (core().tracker->pre_routing(skb) == track_verdict::drop) return discard(skb);
  return is_for_router(skb) ? deliver_ipv6_locally(skb, *chain)
                            : route_ipv6_packet(skb, std::move(originals));
}

}  // namespace

receive_verdict input_ipv6_packet(sk_buff* skb) {
  const std::optional<ipv6_chain> chain = check_headers(skb);
  if (!chain || !is_single_host(ipv6_header(skb)->daddr)) return discard(skb);
  // What neighbours tell each other is never forwarded, and belongs to no connection.
  if (is_nd(skb, *chain)) return is_for_router(skb) ? input_nd(skb) : discard(skb);
  if (!source_is_sound(skb)) return discard(skb);
  if (!is_ipv6_fragment(skb, *chain)) return pass_on(skb, {});

  reassembly_table::result put_together =
      core().reassembly.add(skb, std::exchange(core().as_offered, {}));
  if (put_together.datagram == nullptr) return put_together.verdict;
  return pass_on(put_together.datagram, std::move(put_together.originals));
}

receive_verdict input_ipv6_group_packet(sk_buff* skb) {
  const std::optional<ipv6_chain> chain = check_headers(skb);
  if (!chain || !is_multicast(ipv6_header(skb)->daddr)) return discard(skb);
  return is_nd(skb, *chain) ? input_nd(skb) : discard(skb);
}

}  // namespace tarvelo::stack
