// SPDX-License-Identifier: GPL-2.0-only
//
// The link-layer side of a received frame, parsed once: where the IP header is, the tag, the
// priority, the encapsulation. Positions are offsets from the start of the data, never pointers, so
// they hold when the data has moved under a hook.
#pragma once

#include "kernel/skbuff.h"
#include "kernel/wire/ethernet.h"
#include "module/forward/fate.h"

namespace tarvelo {

/// Protocol families, as the hooks count them.
enum class family : u8 {
  ipv4 = 2,
  ipv6 = 10,
};

/// Bits of `frame::in_flags`: what the frame was wrapped in, and how it leaves.
namespace in_flag {
inline constexpr u8 pppoe = 0x01;
inline constexpr u8 tagged = 0x08;
inline constexpr u8 vlan_output = 0x10;
}  // namespace in_flag

struct frame {
  u16 l3;       ///< offset of the IP header
  u16 tci;      ///< tag control word, host order; 0 when untagged
  u8 priority;  ///< 0 to 7, from the tag or else from the IP header
  u8 in_flags;  ///< `in_flag`
  family ip;    ///< by frame type and IP version, which agree
  bool pushed;  ///< a pseudo Ethernet header was pushed (point-to-point input)

  [[nodiscard]] bool is_tagged() const { return (in_flags & in_flag::tagged) != 0; }
  [[nodiscard]] bool is_pppoe() const { return (in_flags & in_flag::pppoe) != 0; }
  [[nodiscard]] u16 vid() const { return tci & wire::vlan_vid_mask; }
  /// Bytes of Ethernet header and tag.
  [[nodiscard]] u32 link_length() const {
    return is_tagged() ? wire::tagged_ethernet_length : wire::ethernet_length;
  }
};

/// Parses the frame at the start of the data. In a packet of a point-to-point device, which has no
/// Ethernet header, pushes a pseudo one and says so in `pushed`; the caller takes it off again when
/// the packet is handed back. Marks PPPoE frames in `fast_flags`.
fate classify(sk_buff* skb, frame* f);

/// A header at an offset from the data; the caller has checked that it is there.
template <typename Header>
[[nodiscard]] inline Header* header_at(const sk_buff* skb, u32 offset) {
  static_assert(alignof(Header) == 1);
  return reinterpret_cast<Header*>(skb->data + offset);
}

}  // namespace tarvelo
