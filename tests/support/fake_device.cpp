// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/fake_device.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "kernel/route.h"
#include "kernel/slab.h"

namespace tarvelo::test {

fake_device::fake_device(const std::string& name, std::string_view address, u16 type)
    : dev_(alloc_netdev(name.c_str(), type)) {
  if (dev_ == nullptr) throw std::runtime_error("no memory for device " + name);
  std::memcpy(dev_->dev_addr, mac_of(address).at, wire::mac_length);
  constexpr u32 ethernet_mtu = 1500;
  dev_->mtu = ethernet_mtu;
  dev_->flags |= type == ARPHRD_ETHER ? IFF_BROADCAST : IFF_POINTOPOINT;
  dev_->netdev_ops = ops();
  dev_->priv = this;
  if (register_netdevice(dev_) != 0) {
    free_netdev(dev_);
    throw std::runtime_error("device name is taken: " + name);
  }
  dev_open(dev_);
}

fake_device::~fake_device() {
  dev_close(dev_);
  unregister_netdevice(dev_);
}

std::vector<sent_frame> fake_device::take() {
  return std::exchange(sent_, {});
}

const net_device_ops* fake_device::ops() {
  static const net_device_ops operations{.ndo_start_xmit = &fake_device::start_xmit};
  return &operations;
}

int fake_device::start_xmit(sk_buff* skb, net_device* dev) {
  auto* self = static_cast<fake_device*>(dev->priv);
  if (self->mode_ == driver_mode::refuse) return -EBUSY;
  self->sent_.push_back({.data = bytes_of(skb),
                         .fast_flags = skb->fast_flags,
                         .priority = skb->priority,
                         .mac_header = skb->mac_header,
                         .network_header = skb->network_header,
                         .headroom = static_cast<u16>(skb_headroom(skb)),
                         .protocol = skb->protocol,
                         .nfctinfo = skb->nfctinfo,
                         .nfct = skb->nfct,
                         .had_route = skb_dst(skb) != nullptr});
  kfree_skb(skb);
  return NETDEV_TX_OK;
}

sk_buff* make_skb(const bytes& frame, net_device* dev, u32 headroom) {
  static const char* const wanted = std::getenv("FRAME_OFFSET");
  static const u32 offset = wanted != nullptr ? static_cast<u32>(std::stoul(wanted)) : 0;
  const auto length = static_cast<u32>(frame.size());
  // No room behind the data: a checked build sees who reads there.
  sk_buff* skb = alloc_skb(offset + headroom + length, GFP_ATOMIC);
  if (skb == nullptr) throw std::bad_alloc();
  skb->head += offset;
  skb->data += offset;
  skb_reserve(skb, headroom);
  u8* to = skb_put(skb, length);
  if (length != 0) std::memcpy(to, frame.data(), length);
  skb->dev = dev;
  skb->rx_dev = dev;
  constexpr std::size_t type_at = 2 * wire::mac_length;
  if (dev->type == ARPHRD_ETHER && length >= wire::tagged_ethernet_length &&
      frame[type_at] == wire::ethertype::vlan >> 8 && frame[type_at + 1] == 0) {
    skb->priority = frame[wire::ethernet_length] >> 5;
  }
  return skb;
}

bytes bytes_of(const sk_buff* skb) {
  return {skb->data, skb->data + skb->len};
}

}  // namespace tarvelo::test
