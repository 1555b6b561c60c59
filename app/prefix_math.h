// SPDX-License-Identifier: GPL-2.0-only
//
// Arithmetic on IPv4 and IPv6 prefixes without telling them apart: both are strings of bits, most
// significant first. Addresses are in network byte order. Pure.
#pragma once

#include <array>
#include <optional>
#include <span>

#include "stack/config.h"

namespace tarvelo::app {

/// An address and how many of its bits count.
class address_bits {
 public:
  explicit address_bits(const stack::ip_address& address);
  explicit address_bits(const stack::ip_prefix& prefix);

  [[nodiscard]] std::span<const u8> bytes() const { return {bytes_.data(), size_}; }
  [[nodiscard]] bool is_ipv4() const { return size_ == sizeof(u32); }
  /// Significant bits: all of an address.
  [[nodiscard]] u32 length() const { return length_; }
  [[nodiscard]] u32 width() const { return static_cast<u32>(size_) * 8; }

  /// True when all bits from the length on have the value `bit`.
  [[nodiscard]] bool rest_is(bool bit) const;
  /// True for the first and the last IPv4 address of a network that is large enough to have hosts
  /// besides them: the one is nobody's, the other everybody's.
  [[nodiscard]] bool is_end_of_network() const;
  /// The same address with another number of significant bits.
  [[nodiscard]] address_bits with_length(u32 length) const;
  /// With the bits from the length on cleared.
  [[nodiscard]] address_bits network() const;
  /// True when `other` is of the same family and agrees in the significant bits.
  [[nodiscard]] bool contains(const address_bits& other) const;
  [[nodiscard]] bool same_address(const address_bits& other) const;
  [[nodiscard]] stack::ip_prefix to_prefix() const;
  [[nodiscard]] stack::ip_address to_address() const;

 private:
  std::array<u8, sizeof(wire::in6_addr)> bytes_{};
  std::size_t size_;
  u32 length_;
};

/// Why an address cannot be that of one host: "a multicast address"; null when it can.
[[nodiscard]] const char* why_not_a_host(const address_bits& address);

/// fe80::/10: means something on one link only.
[[nodiscard]] bool is_link_local_ipv6(const address_bits& address);

}  // namespace tarvelo::app
