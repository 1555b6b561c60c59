// SPDX-License-Identifier: GPL-2.0-only
#include "stack/receive.h"

#include <cstring>

#include "kernel/fast_path.h"
#include "stack/arp.h"
#include "stack/ip_input.h"
#include "stack/stack_core.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

enum class addressee : u8 {
  router,
  everyone,  ///< a group: received, but never forwarded and so never offered
  stranger,  ///< another host, or no proper frame
};

receive_counters& counters() noexcept {
  return core().received[hosted::processor()];
}

addressee addressee_of_ethernet(const sk_buff* skb) noexcept {
  if (skb_headlen(skb) < wire::ethernet_length) return addressee::stranger;
  const auto* eth = reinterpret_cast<const wire::ethhdr*>(skb->data);
  const u8* own = skb->dev->dev_addr;
  // A frame that claims to come from here has gone round in a loop.
  if ((eth->h_source[0] & wire::mac_group_bit) != 0) return addressee::stranger;
  if (std::memcmp(eth->h_source, own, wire::mac_length) == 0) return addressee::stranger;
  if ((eth->h_dest[0] & wire::mac_group_bit) != 0) return addressee::everyone;
  const bool ours = std::memcmp(eth->h_dest, own, wire::mac_length) == 0;
  return ours ? addressee::router : addressee::stranger;
}

/// Everything that comes over a link between two is for the router.
addressee addressee_of_raw(const sk_buff* skb) noexcept {
  return skb_headlen(skb) >= wire::ipv4_min_length ? addressee::router : addressee::stranger;
}

/// The module tells frames with an Ethernet header from packets without one by the frame type, and
/// these are the types it knows. A packet without the header that shows one by chance would be
/// taken for a frame.
bool looks_like_a_frame(const sk_buff* skb) noexcept {
  wire::be16 type;
  std::memcpy(&type, skb->data + offsetof(wire::ethhdr, h_proto), sizeof type);
  switch (type.host()) {
    case wire::ethertype::ipv4:
    case wire::ethertype::ipv6:
    case wire::ethertype::vlan:
    case wire::ethertype::pppoe_session:
      return true;
    default:
      return false;
  }
}

/// Offers a frame to the fast path; true when it is gone. Softirq context is the RCU read side that
/// keeps the handle.
bool taken_by_fast_path(sk_buff* skb, device_kind kind) noexcept {
  if (!read_once(core().offering)) return false;
  vok_handle* handle = rcu_dereference(kcih);
  if (handle == nullptr || read_once(handle->enable) == 0) return false;
  if (kind == device_kind::rawip && looks_like_a_frame(skb)) return false;
  count_once(counters().offered);
  if (handle->_vok_forward(handle, skb, 0) != 0) return false;
  count_once(counters().fast);
  return true;
}

receive_verdict receive_ethernet(sk_buff* skb, addressee to) {
  const u16 type = reinterpret_cast<const wire::ethhdr*>(skb->data)->h_proto.host();
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  skb_pull(skb, wire::ethernet_length);
  switch (type) {
    case wire::ethertype::ipv4:
      // To a group: none of the router's services is reached that way, and it forwards none.
      return to == addressee::router ? input_ip_packet(skb) : discard(skb);
    case wire::ethertype::arp:
      return input_arp(skb);
    default:
      return discard(skb);
  }
}

/// A link without headers carries IP only, told apart by its version: input checks it.
receive_verdict receive_raw(sk_buff* skb) {
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  return input_ip_packet(skb);
}

receive_verdict receive_slowly(sk_buff* skb, device_kind kind, addressee to) {
  const stack_guard guard;
  switch (kind) {
    case device_kind::port:
      return receive_ethernet(skb, to);
    case device_kind::rawip:
      return receive_raw(skb);
  }
  return discard(skb);
}

receive_verdict receive_on(sk_buff* skb, const device_record& record) {
  const addressee to =
      record.kind == device_kind::port ? addressee_of_ethernet(skb) : addressee_of_raw(skb);
  if (to == addressee::stranger) return discard(skb);
  skb->rx_dev = skb->dev;
  if (to == addressee::router && taken_by_fast_path(skb, record.kind)) {
    return receive_verdict::fast;
  }
  return receive_slowly(skb, record.kind, to);
}

}  // namespace

receive_verdict receive_frame(sk_buff* skb) {
  net_device* dev = skb->dev;
  const device_record* record = core().devices.find(dev);
  receive_verdict verdict = receive_verdict::dropped;
  if (record == nullptr || (read_once(dev->flags) & IFF_UP) == 0) {
    kfree_skb(skb);
  } else {
    dev_count_rx(dev, skb->len);
    verdict = receive_on(skb, *record);
  }
  if (verdict == receive_verdict::dropped) {
    dev_count_rx_dropped(dev);
    count_once(counters().dropped);
  }
  return verdict;
}

}  // namespace tarvelo::stack
