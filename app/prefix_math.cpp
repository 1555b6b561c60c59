// SPDX-License-Identifier: GPL-2.0-only
#include "app/prefix_math.h"

#include <algorithm>
#include <cstring>

namespace tarvelo::app {

namespace {

bool bit_of(std::span<const u8> bytes, u32 index) {
  return (bytes[index / 8] >> (7 - index % 8) & 1) != 0;
}

}  // namespace

address_bits::address_bits(const stack::ip_address& address) {
  std::visit(
      [this](const auto& value) {
        size_ = sizeof value;
        std::memcpy(bytes_.data(), &value, sizeof value);
      },
      address);
  length_ = width();
}

address_bits::address_bits(const stack::ip_prefix& prefix) {
  std::visit(
      [this](const auto& value) {
        size_ = sizeof value.address;
        std::memcpy(bytes_.data(), &value.address, sizeof value.address);
        length_ = value.length;
      },
      prefix);
}

bool address_bits::rest_is(bool bit) const {
  for (u32 i = length_; i < width(); ++i) {
    if (bit_of(bytes(), i) != bit) return false;
  }
  return true;
}

bool address_bits::is_end_of_network() const {
  constexpr u32 longest_with_ends = 30;
  return is_ipv4() && length_ <= longest_with_ends && (rest_is(false) || rest_is(true));
}

address_bits address_bits::with_length(u32 length) const {
  address_bits result = *this;
  result.length_ = length;
  return result;
}

address_bits address_bits::network() const {
  address_bits result = *this;
  for (u32 i = length_; i < width(); ++i) {
    result.bytes_[i / 8] &= static_cast<u8>(~(0x80U >> i % 8));
  }
  return result;
}

bool address_bits::contains(const address_bits& other) const {
  if (size_ != other.size_) return false;
  for (u32 i = 0; i < length_; ++i) {
    if (bit_of(bytes(), i) != bit_of(other.bytes(), i)) return false;
  }
  return true;
}

bool address_bits::same_address(const address_bits& other) const {
  return size_ == other.size_ && bytes_ == other.bytes_;
}

stack::ip_address address_bits::to_address() const {
  if (is_ipv4()) {
    u32 address = 0;
    std::memcpy(&address, bytes_.data(), sizeof address);
    return address;
  }
  wire::in6_addr address{};
  std::memcpy(&address, bytes_.data(), sizeof address);
  return address;
}

stack::ip_prefix address_bits::to_prefix() const {
  const auto bits = static_cast<u8>(length_);
  const stack::ip_address address = to_address();
  if (const u32* v4 = std::get_if<u32>(&address)) return stack::ipv4_prefix{*v4, bits};
  return stack::ipv6_prefix{std::get<wire::in6_addr>(address), bits};
}

const char* why_not_a_host(const address_bits& address) {
  const auto bytes = address.bytes();
  const bool all_but_last_zero =
      std::all_of(bytes.begin(), bytes.end() - 1, [](u8 b) { return b == 0; });
  if (address.is_ipv4()) {
    constexpr u8 loopback = 127;
    constexpr u8 multicast_least = 224;
    constexpr u8 reserved_least = 240;
    if (bytes[0] == 0) return "an address of no host";
    if (bytes[0] == loopback) return "a loopback address";
    if (bytes[0] >= reserved_least) return "a reserved address";
    if (bytes[0] >= multicast_least) return "a multicast address";
    return nullptr;
  }
  if (bytes[0] == 0xFF) return "a multicast address";
  if (all_but_last_zero && bytes.back() == 0) return "an address of no host";
  if (all_but_last_zero && bytes.back() == 1) return "a loopback address";
  return nullptr;
}

bool is_link_local_ipv6(const address_bits& address) {
  const auto bytes = address.bytes();
  return !address.is_ipv4() && bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80;
}

}  // namespace tarvelo::app
