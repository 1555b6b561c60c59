// SPDX-License-Identifier: GPL-2.0-only
#include "stack/device_table.h"

#include <utility>

namespace tarvelo::stack {

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

}  // namespace tarvelo::stack
