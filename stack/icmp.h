// SPDX-License-Identifier: GPL-2.0-only
//
// ICMP for IPv4 (RFC 792, RFC 1812 section 4.3): the errors that the router originates, and the
// echo requests to its own addresses.
//
// No error answers an error, a fragment other than the first, a packet to or from anything but a
// single host, or one that the router made itself; and errors are limited in rate. The error's
// source is the address of the device the packet came in on, so that a traced path shows it.
//
// All under the stack's lock.
#pragma once

#include "kernel/skbuff.h"
#include "kernel/wire/transport.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// What is wrong with a packet, by ICMP type and code.
struct icmp_error {
  u8 type;
  u8 code;
  u16 mtu;  ///< of the next hop, bytes, host order; "fragmentation needed" only (RFC 1191)

  [[nodiscard]] static constexpr icmp_error unreachable(u8 code) noexcept {
    return {wire::icmp_type::unreachable, code, 0};
  }
  [[nodiscard]] static constexpr icmp_error net_unreachable() noexcept {
    return unreachable(wire::icmp_code::net_unreachable);
  }
  [[nodiscard]] static constexpr icmp_error host_unreachable() noexcept {
    return unreachable(wire::icmp_code::host_unreachable);
  }
  [[nodiscard]] static constexpr icmp_error protocol_unreachable() noexcept {
    return unreachable(wire::icmp_code::protocol_unreachable);
  }
  [[nodiscard]] static constexpr icmp_error port_unreachable() noexcept {
    return unreachable(wire::icmp_code::port_unreachable);
  }
  [[nodiscard]] static constexpr icmp_error fragmentation_needed(u16 next_mtu) noexcept {
    return {wire::icmp_type::unreachable, wire::icmp_code::fragmentation_needed, next_mtu};
  }
  [[nodiscard]] static constexpr icmp_error ttl_exceeded() noexcept {
    return {wire::icmp_type::time_exceeded, wire::icmp_code::ttl_exceeded, 0};
  }
  [[nodiscard]] static constexpr icmp_error reassembly_timed_out() noexcept {
    return {wire::icmp_type::time_exceeded, wire::icmp_code::reassembly_time_exceeded, 0};
  }
};

/// Sends an error about a packet, which stays the caller's: `network_header` set, `data` there,
/// `rx_dev` the layer-3 device it came in on. `slow` when an error went out or waits for its next
/// hop, `dropped` when there was to be none.
receive_verdict send_icmp_error(const sk_buff* about, icmp_error what);

/// The same, and frees the packet.
[[nodiscard]] receive_verdict reject(sk_buff* skb, icmp_error what);

/// Takes an ICMP message to the router itself: answers an echo request, ends anything else.
[[nodiscard]] receive_verdict deliver_icmp(sk_buff* skb);

}  // namespace tarvelo::stack
