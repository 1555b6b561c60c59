// SPDX-License-Identifier: GPL-2.0-only
#include "stack/device_table.h"

#include <algorithm>
#include <utility>

#include "stack/ipv6_packet.h"

namespace tarvelo::stack {

bool in_prefix(const wire::in6_addr& address, const ipv6_prefix& prefix) noexcept {
  constexpr u32 byte_bits = 8;
  const u32 whole = prefix.length / byte_bits;
  const u32 rest = prefix.length % byte_bits;
  const u8* own = prefix.address.bytes;
  if (!std::equal(own, own + whole, address.bytes)) return false;
  return rest == 0 || (own[whole] ^ address.bytes[whole]) >> (byte_bits - rest) == 0;
}

device_record& device_table::add(net_device* dev, device_kind kind,
                                 std::vector<ipv4_prefix> addresses) {
  for (const ipv4_prefix& own : addresses)
    own_.insert(own.address);
  records_.push_back(std::make_unique<device_record>(
      device_record{.dev = dev, .kind = kind, .addresses = std::move(addresses)}));

  const auto index = static_cast<std::size_t>(dev->ifindex);
  if (by_index_.size() <= index) by_index_.resize(index + 1, nullptr);
  by_index_[index] = records_.back().get();
  return *records_.back();
}

void device_table::add_ipv6(net_device* dev, std::vector<ipv6_prefix> addresses) {
  for (const ipv6_prefix& own : addresses)
    own_ipv6_.insert(std::to_array(own.address.bytes));
  find_to_change(dev)->ipv6_addresses = std::move(addresses);
}

const device_record* device_table::find(const net_device* dev) const noexcept {
  const auto index = static_cast<std::size_t>(dev->ifindex);
  return index < by_index_.size() ? by_index_[index] : nullptr;
}

device_record* device_table::find_to_change(const net_device* dev) noexcept {
  return const_cast<device_record*>(find(dev));
}

net_device* device_table::by_name(std::string_view name) const noexcept {
  for (const auto& record : records_) {
    if (name == record->dev->name) return record->dev;
  }
  return nullptr;
}

u32 device_table::source_address(const net_device* dev, u32 peer) const noexcept {
  const device_record* record = find(dev);
  if (record == nullptr || record->addresses.empty()) return 0;
  for (const ipv4_prefix& own : record->addresses) {
    if (in_prefix(peer, own)) return own.address;
  }
  return record->addresses.front().address;
}

bool device_table::has_address(const net_device* dev,
                               const wire::in6_addr& address) const noexcept {
  const device_record* record = find(dev);
  return record != nullptr &&
         std::ranges::any_of(record->ipv6_addresses,
                             [&](const ipv6_prefix& own) { return own.address == address; });
}

wire::in6_addr device_table::source_address(const net_device* dev,
                                            const wire::in6_addr& peer) const noexcept {
  const auto fits = [&](const ipv6_prefix& own) {
    return is_link_local(own.address) == is_link_local(peer);
  };
  if (const device_record* record = find(dev)) {
    const auto& all = record->ipv6_addresses;
    const auto nearest =
        std::ranges::find_if(all, [&](const auto& own) { return in_prefix(peer, own); });
    if (nearest != all.end()) return nearest->address;
    const auto any = std::ranges::find_if(all, fits);
    if (any != all.end()) return any->address;
  }
  if (is_link_local(peer)) return {};
  for (const auto& record : records_) {
    const auto any = std::ranges::find_if(record->ipv6_addresses, fits);
    if (any != record->ipv6_addresses.end()) return any->address;
  }
  return {};
}

}  // namespace tarvelo::stack
