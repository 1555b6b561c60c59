// SPDX-License-Identifier: GPL-2.0-only
#include "app/device_statistics.h"

#include <fmt/format.h>

namespace tarvelo::app {

namespace {

bool is_counted(const stack::link_config& link) {
  return std::holds_alternative<stack::vlan_link>(link) ||
         std::holds_alternative<stack::pppoe_link>(link) ||
         std::holds_alternative<stack::l2tp_link>(link) ||
         std::holds_alternative<stack::pptp_link>(link);
}

}  // namespace

std::string device_statistics_text(const stack::router_config& config,
                                   const stack::router& router) {
  std::string text;
  for (const stack::device_config& device : config.devices) {
    if (!is_counted(device.link)) continue;
    const net_device* dev = router.device(device.name);
    if (dev == nullptr) continue;
    const rtnl_link_stats64 s = dev_stats(dev);
    text += fmt::format("{}: received {} packets, {} bytes; sent {} packets, {} bytes\n",
                        device.name, s.rx_packets, s.rx_bytes, s.tx_packets, s.tx_bytes);
  }
  return text;
}

}  // namespace tarvelo::app
