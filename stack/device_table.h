// SPDX-License-Identifier: GPL-2.0-only
//
// The router's devices and the addresses it has on them.
//
// Filled while the router is built and constant from then on, so packet workers read it without a
// lock. The table does not own the devices; the router takes them away before the table goes.
// Addresses are in network byte order.
#pragma once

#include <array>
#include <memory>
#include <set>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "kernel/if_bridge.h"
#include "kernel/netdevice.h"
#include "stack/config.h"

namespace tarvelo::stack {

/// How frames look on a device, and so how they are received and sent.
enum class device_kind : u8 {
  port,    ///< Ethernet
  vlan,    ///< Ethernet, a VLAN of the device beneath
  bridge,  ///< Ethernet, the router's own place on the segment that its ports make up
  rawip,   ///< IP packets without a link-layer header
  ppp,     ///< IP packets, wrapped and sent by the device beneath
};

struct device_record {
  net_device* dev;
  device_kind kind;
  std::vector<ipv4_prefix> addresses;         ///< the first is the device's main one
  std::vector<ipv6_prefix> ipv6_addresses{};  ///< the same; a link-local one is the last
  net_device* beneath = nullptr;           ///< the one device that this one goes up and down with
  net_bridge_port* bridge_port = nullptr;  ///< its place in a bridge; null without one
};

/// The mask of a prefix length, network order.
[[nodiscard]] constexpr u32 ipv4_mask(u8 length) noexcept {
  return length == 0 ? 0 : wire::htonl(0xFFFFFFFFU << (32 - length));
}

[[nodiscard]] constexpr bool in_prefix(u32 address, const ipv4_prefix& prefix) noexcept {
  return ((address ^ prefix.address) & ipv4_mask(prefix.length)) == 0;
}

/// The same for IPv6.
[[nodiscard]] bool in_prefix(const wire::in6_addr& address, const ipv6_prefix& prefix) noexcept;

class device_table {
 public:
  /// Enters a registered device; the rest of its record is the caller's to fill in.
  device_record& add(net_device* dev, device_kind kind, std::vector<ipv4_prefix> addresses);

  /// Gives a device in the table its IPv6 addresses.
  void add_ipv6(net_device* dev, std::vector<ipv6_prefix> addresses);

  /// Null for a device that is not the router's. The second, only while the router is built.
  [[nodiscard]] const device_record* find(const net_device* dev) const noexcept;
  [[nodiscard]] device_record* find_to_change(const net_device* dev) noexcept;
  [[nodiscard]] net_device* by_name(std::string_view name) const noexcept;
  [[nodiscard]] const std::vector<std::unique_ptr<device_record>>& all() const noexcept {
    return records_;
  }

  /// True for an IPv4 address of any device of the router.
  [[nodiscard]] bool is_own(u32 address) const noexcept { return own_.contains(address); }
  [[nodiscard]] bool is_own(const wire::in6_addr& address) const noexcept {
    return own_ipv6_.contains(std::to_array(address.bytes));
  }
  /// True for an address of this very device.
  [[nodiscard]] bool has_address(const net_device* dev,
                                 const wire::in6_addr& address) const noexcept;

  /// The device's address that `peer` knows best: the one in its subnet, else the main one; 0 when
  /// the device has none.
  [[nodiscard]] u32 source_address(const net_device* dev, u32 peer) const noexcept;
  /// The same for IPv6, where a peer beyond the link is never shown a link-local address: another
  /// device's stands in when this one has no other. All zero when there is none.
  [[nodiscard]] wire::in6_addr source_address(const net_device* dev,
                                              const wire::in6_addr& peer) const noexcept;

 private:
  std::vector<std::unique_ptr<device_record>> records_;
  std::vector<device_record*> by_index_;  ///< by ifindex
  std::unordered_set<u32> own_;
  std::set<std::array<u8, sizeof(wire::in6_addr)>> own_ipv6_;
};

}  // namespace tarvelo::stack
