// SPDX-License-Identifier: GPL-2.0-only
//
// ICMPv6 (RFC 4443): the errors that the router originates, and the echo requests to its own
// addresses.
//
// As for IPv4, no error answers an error, a later fragment, a packet to or from anything but a
// single host, or one that the router made itself; both families share one limit of the rate. An
// error is never translated: IPv6 addresses are not.
//
// All under the stack's lock.
#pragma once

#include "kernel/skbuff.h"
#include "kernel/wire/ip.h"
#include "kernel/wire/transport.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// What is wrong with a packet, by ICMPv6 type and code.
struct icmpv6_error {
  u8 type;
  u8 code;
  u32 value;  ///< MTU of the next hop or offset of the fault, bytes, host order; else 0

  [[nodiscard]] static constexpr icmpv6_error no_route() noexcept {
    return {wire::icmpv6_type::unreachable, wire::icmpv6_code::no_route, 0};
  }
  [[nodiscard]] static constexpr icmpv6_error address_unreachable() noexcept {
    return {wire::icmpv6_type::unreachable, wire::icmpv6_code::address_unreachable, 0};
  }
  [[nodiscard]] static constexpr icmpv6_error port_unreachable() noexcept {
    return {wire::icmpv6_type::unreachable, wire::icmpv6_code::port_unreachable, 0};
  }
  [[nodiscard]] static constexpr icmpv6_error packet_too_big(u32 next_mtu) noexcept {
    return {wire::icmpv6_type::packet_too_big, 0, next_mtu};
  }
  [[nodiscard]] static constexpr icmpv6_error hop_limit_exceeded() noexcept {
    return {wire::icmpv6_type::time_exceeded, wire::icmpv6_code::hop_limit_exceeded, 0};
  }
  [[nodiscard]] static constexpr icmpv6_error reassembly_timed_out() noexcept {
    return {wire::icmpv6_type::time_exceeded, wire::icmpv6_code::reassembly_time_exceeded, 0};
  }
  [[nodiscard]] static constexpr icmpv6_error unknown_next_header(u32 at) noexcept {
    return {wire::icmpv6_type::parameter_problem, wire::icmpv6_code::unknown_next_header, at};
  }
};

/// Sends an error about a packet, which stays the caller's: `network_header` set, `data` there,
/// `rx_dev` the layer-3 device it came in on. `slow` when an error went out or waits for its next
/// hop, `dropped` when there was to be none.
receive_verdict send_icmpv6_error(const sk_buff* about, icmpv6_error what);

/// The same, and frees the packet.
[[nodiscard]] receive_verdict reject_ipv6(sk_buff* skb, icmpv6_error what);

/// Takes an ICMPv6 message to the router itself, its transport header marked: answers an echo
/// request, ends anything else.
[[nodiscard]] receive_verdict deliver_icmpv6(sk_buff* skb);

/// Fills in the checksum of a whole ICMPv6 message that follows its IPv6 header directly.
void sum_icmpv6(wire::ipv6hdr* ip) noexcept;

}  // namespace tarvelo::stack
