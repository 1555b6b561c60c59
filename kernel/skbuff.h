// SPDX-License-Identifier: GPL-2.0-only
//
// Socket buffers. A buffer is one linear block: headroom, data, tailroom. The three header fields
// are offsets from `head`, 0 meaning unset.
//
// A buffer has one owner, who frees it or hands it on. Freeing drops what it carries: the
// connection and the route. So a buffer is never freed under a lock of the module.
#pragma once

#include "kernel/nf_conntrack.h"
#include "kernel/slab.h"
#include "kernel/types.h"

struct dst_entry;
struct net_device;

/// Bits of `fast_flags`. The kernel hands a buffer over with 0 here but for `received_on_ppp`.
namespace fast_flag {
inline constexpr u32 received_on_ppp = 0x00000001;
inline constexpr u32 add_as_reply = 0x00000020;  ///< for one add call, see the stack's NAT hooks
inline constexpr u32 original_direction = 0x00000040;
inline constexpr u32 pppoe = 0x00000080;
inline constexpr u32 vlan_slot_valid = 0x00000100;
inline constexpr unsigned vlan_slot_shift = 9;
inline constexpr u32 vlan_slot_mask = 0x3U << vlan_slot_shift;
inline constexpr u32 tag_written = 0x00000800;
inline constexpr u32 met_destination_nat = 0x00002000;
inline constexpr u32 never_add = 0x00020000;
inline constexpr u32 sent_fast = 0x02000000;
inline constexpr u32 slow_xmit = 0x04000000;
}  // namespace fast_flag

struct sk_buff {
  sk_buff* next;  ///< for the owner's queue
  net_device* dev;
  net_device* rx_dev;          ///< layer-3 device of arrival; may be null
  nf_conntrack* nfct;          ///< one reference, or null
  std::uintptr_t _skb_refdst;  ///< see kernel/route.h
  u32 len;                     ///< bytes of data
  u32 data_len;                ///< of these, not linear: always 0 in the hosted kernel
  u32 priority;                ///< 0 to 7 for a tagged frame
  u32 fast_flags;
  u16 mac_header;
  u16 network_header;
  u16 transport_header;
  u16 protocol;  ///< EtherType, network byte order
  u8 nfctinfo;   ///< ip_conntrack_info
  u8* head;
  u8* data;
  u8* end;
};

extern "C" {
[[nodiscard]] sk_buff* hosted_alloc_skb(u32 size) noexcept;
/// `at` is null in builds that do not check.
void hosted_kfree_skb(sk_buff* skb, const code_place* at) noexcept;
/// A copy with the same headroom, at least `tailroom` bytes of tailroom and the same device,
/// offsets, protocol and priority, but no connection, route or fast_flags; null without memory.
[[nodiscard]] sk_buff* skb_copy_plain(const sk_buff* skb, u32 tailroom, gfp_t flags) noexcept;

/// Ends the program: the room that `at` asked for is not there.
[[noreturn]] void hosted_skb_no_room(const sk_buff* skb, u32 length, const code_place* at) noexcept;
/// Checked builds only: ends the program when the buffer has been freed.
void checked_skb_live(const sk_buff* skb, code_place at) noexcept;
}

/// A buffer of `size` bytes of room, `data` at the front of it, `len` 0; null without memory.
[[nodiscard]] inline sk_buff* alloc_skb(u32 size, gfp_t flags,
                                        code_place at = code_place::here()) noexcept {
  hosted::note_allocation(flags, at);
  return hosted_alloc_skb(size);
}

/// Null is allowed.
inline void kfree_skb(sk_buff* skb, code_place at = code_place::here()) noexcept {
  hosted_kfree_skb(skb, kernel_checked ? &at : nullptr);
}

[[nodiscard]] inline u32 skb_headroom(const sk_buff* skb) noexcept {
  return static_cast<u32>(skb->data - skb->head);
}

[[nodiscard]] inline u32 skb_tailroom(const sk_buff* skb) noexcept {
  return static_cast<u32>(skb->end - skb->data) - skb->len;
}

/// Linear bytes, which is all that may be read without further ado.
[[nodiscard]] inline u32 skb_headlen(const sk_buff* skb) noexcept {
  return skb->len - skb->data_len;
}

/// Moves the empty data `length` bytes into the room.
inline void skb_reserve(sk_buff* skb, u32 length) noexcept {
  skb->data += length;
}

/// Cuts the data to `length` bytes if it is longer.
inline void skb_trim(sk_buff* skb, u32 length) noexcept {
  if (skb->len > length) skb->len = length;
}

/// The data grows at the front, shrinks at the front, grows at the end; returns the start of the
/// data, for skb_put the start of the new bytes. The first and last end the program when the room
/// is not there; skb_pull returns null then and changes nothing.
inline u8* skb_push(sk_buff* skb, u32 length, code_place at = code_place::here()) noexcept {
  if constexpr (kernel_checked) checked_skb_live(skb, at);
  if (length > skb_headroom(skb)) hosted_skb_no_room(skb, length, &at);
  skb->len += length;
  return skb->data -= length;
}

inline u8* skb_pull(sk_buff* skb, u32 length, code_place at = code_place::here()) noexcept {
  if constexpr (kernel_checked) checked_skb_live(skb, at);
  if (length > skb->len) return nullptr;
  skb->len -= length;
  return skb->data += length;
}

inline u8* skb_put(sk_buff* skb, u32 length, code_place at = code_place::here()) noexcept {
  if constexpr (kernel_checked) checked_skb_live(skb, at);
  if (length > skb_tailroom(skb)) hosted_skb_no_room(skb, length, &at);
  u8* added = skb->data + skb->len;
  skb->len += length;
  return added;
}

[[nodiscard]] inline u8* skb_network_header(const sk_buff* skb) noexcept {
  return skb->head + skb->network_header;
}

[[nodiscard]] inline u8* skb_transport_header(const sk_buff* skb) noexcept {
  return skb->head + skb->transport_header;
}

/// Drops the connection that the buffer carries.
inline void nf_reset(sk_buff* skb, code_place at = code_place::here()) noexcept {
  nf_conntrack* nfct = skb->nfct;
  skb->nfct = nullptr;
  skb->nfctinfo = 0;
  nf_conntrack_put(nfct, at);
}
