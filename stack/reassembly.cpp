// SPDX-License-Identifier: GPL-2.0-only
#include "stack/reassembly.h"

#include <algorithm>
#include <cstring>

#include "stack/icmp.h"
#include "stack/ip_packet.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

/// Memory that a held buffer occupies: what the bound is about, rather than the bytes it carries.
u32 memory_of(const sk_buff* skb) noexcept {
  return static_cast<u32>(sizeof(sk_buff)) + static_cast<u32>(skb->end - skb->head);
}

/// The whole datagram's header is that of its first fragment, without the marks of one.
void make_whole(wire::iphdr* ip, u32 length) noexcept {
  ip->tot_len = wire::be16(static_cast<u16>(length));
  ip->frag_off = wire::be16(0);
  ip_send_check(ip);
}

}  // namespace

reassembly_table::reassembly_table(const limits& bounds)
    : max_datagrams_(bounds.datagrams_in_reassembly), max_bytes_(bounds.reassembly_bytes) {
  setup_timer(&timer_, timer_function, reinterpret_cast<unsigned long>(this));
}

void reassembly_table::clear() {
  {
    const stack_guard guard;
    while (!datagrams_.empty())
      forget(datagrams_.begin());
  }
  del_timer_sync(&timer_);
}

reassembly_table::result reassembly_table::add(sk_buff* skb) {
  constexpr result dropped{nullptr, receive_verdict::dropped};
  const wire::iphdr* ip = ip_header(skb);
  const u16 field = ip->frag_off.host();
  const bool last = (field & wire::ip_frag::more_fragments) == 0;
  const u32 start = (field & wire::ip_frag::offset_mask) * fragment_unit;
  const u32 length = skb->len - ip->header_length();

  if (length == 0 || (!last && length % fragment_unit != 0)) {
    kfree_skb(skb);
    return dropped;
  }
  const place at = find_or_begin(
      {ip->saddr.raw(), ip->daddr.raw(), ip->id.raw(), ip->protocol, skb->dev->ifindex});
  if (at == datagrams_.end()) {
    kfree_skb(skb);
    return dropped;
  }

  switch (insert(*at, {start, start + length, skb}, last)) {
    case insertion::taken:
      if (at->held == at->total) return finish(at);
      return {nullptr, receive_verdict::slow};
    case insertion::conflicting:
      forget(at);
      break;
    case insertion::no_room:
      ++refused_;
      if (at->pieces.empty()) forget(at);
      break;
    case insertion::repeated:
      break;
  }
  kfree_skb(skb);
  return dropped;
}

/// The end of the list when there are too many.
reassembly_table::place reassembly_table::find_or_begin(const key& id) {
  if (const auto known = index_.find(id); known != index_.end()) return known->second;
  if (datagrams_.size() >= max_datagrams_) {
    ++refused_;
    return datagrams_.end();
  }
  datagrams_.push_back({id, jiffies + lifetime, 0, 0, {}});
  const place at = std::prev(datagrams_.end());
  index_.emplace(id, at);
  rearm();
  return at;
}

reassembly_table::insertion reassembly_table::insert(datagram& into, const piece& what, bool last) {
  auto& pieces = into.pieces;
  const auto at = std::lower_bound(pieces.begin(), pieces.end(), what.start,
                                   [](const piece& p, u32 start) { return p.start < start; });
  if (at != pieces.end() && at->start == what.start && at->end == what.end) {
    return insertion::repeated;
  }
  if (at != pieces.end() && at->start < what.end) return insertion::conflicting;
  if (at != pieces.begin() && std::prev(at)->end > what.start) return insertion::conflicting;

  const u32 known_end = pieces.empty() ? 0 : pieces.back().end;
  if (last && (into.total != 0 || known_end > what.end)) return insertion::conflicting;
  if (into.total != 0 && what.end > into.total) return insertion::conflicting;
  if (what.end > wire::ip_max_length - ip_header(what.skb)->header_length()) {
    return insertion::conflicting;
  }
  if (bytes_ + memory_of(what.skb) > max_bytes_) return insertion::no_room;

  pieces.insert(at, what);
  bytes_ += memory_of(what.skb);
  into.held += what.end - what.start;
  if (last) into.total = what.end;
  return insertion::taken;
}

reassembly_table::result reassembly_table::finish(place whole) {
  constexpr result dropped{nullptr, receive_verdict::dropped};
  const sk_buff* first = whole->pieces.front().skb;
  const u32 header_length = ip_header(first)->header_length();
  const u32 length = header_length + whole->total;
  sk_buff* skb = length <= wire::ip_max_length ? alloc_packet(length) : nullptr;
  if (skb == nullptr) {
    forget(whole);
    return dropped;
  }

  std::memcpy(skb_put(skb, header_length), first->data, header_length);
  for (const piece& part : whole->pieces) {
    const u32 bytes = part.end - part.start;
    std::memcpy(skb_put(skb, bytes), part.skb->data + (part.skb->len - bytes), bytes);
  }
  skb->dev = first->dev;
  skb->rx_dev = first->rx_dev;
  skb->priority = first->priority;
  mark_ip_packet(skb);
  make_whole(ip_header(skb), length);
  forget(whole);
  return {skb, receive_verdict::slow};
}

void reassembly_table::forget(place which) {
  for (const piece& part : which->pieces) {
    bytes_ -= memory_of(part.skb);
    kfree_skb(part.skb);
  }
  index_.erase(which->id);
  datagrams_.erase(which);
  rearm();
}

void reassembly_table::rearm() {
  if (datagrams_.empty()) {
    del_timer(&timer_);
    return;
  }
  const u32 next = datagrams_.front().deadline;
  if (!timer_pending(&timer_) || timer_.expires != next) mod_timer(&timer_, next);
}

/// Tells the sender of a datagram whose beginning is there that the rest has not come.
void reassembly_table::expire() {
  while (!datagrams_.empty() && time_after_eq(jiffies, datagrams_.front().deadline)) {
    const place late = datagrams_.begin();
    if (!late->pieces.empty() && late->pieces.front().start == 0) {
      send_icmp_error(late->pieces.front().skb, icmp_error::reassembly_timed_out());
    }
    forget(late);
  }
}

void reassembly_table::timer_function(unsigned long data) {
  const stack_guard guard;
  reinterpret_cast<reassembly_table*>(data)->expire();
}

}  // namespace tarvelo::stack
