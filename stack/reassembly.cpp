// SPDX-License-Identifier: GPL-2.0-only
#include "stack/reassembly.h"

#include <algorithm>
#include <cstring>

#include "stack/icmp.h"
#include "stack/icmpv6.h"
#include "stack/ip_packet.h"
#include "stack/ipv6_packet.h"
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

/// The same for IPv6, whose fragment header is not copied: what announced it announces what came
/// after it. `chain` is that of the first fragment.
void make_ipv6_whole(u8* start, u32 length, const sk_buff* first,
                     const ipv6_chain& chain) noexcept {
  auto* ip = reinterpret_cast<wire::ipv6hdr*>(start);
  ip->payload_len = wire::be16(static_cast<u16>(length - wire::ipv6_length));
  start[chain.next_field] = first->data[chain.fragment];
}

/// Puts a buffer back to how it was offered.
void restore_frame(sk_buff* skb, const offered_frame& as_offered) noexcept {
  skb_push(skb, as_offered.link_length);
  std::memcpy(skb->data, as_offered.link, as_offered.link_length);
  skb->dev = as_offered.dev;
  skb->rx_dev = as_offered.dev;
  skb->priority = as_offered.priority;
  skb->mac_header = 0;
  skb->network_header = 0;
  skb->transport_header = 0;
  skb->fast_flags = 0;
}

void tell_sender(const sk_buff* first) {
  if (is_ipv6_packet(first)) {
    send_icmpv6_error(first, icmpv6_error::reassembly_timed_out());
  } else {
    send_icmp_error(first, icmp_error::reassembly_timed_out());
  }
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

reassembly_table::result reassembly_table::add(sk_buff* skb, const offered_frame& as_offered) {
  const std::optional<fragment_view> view = read_fragment(skb->data, skb->len);
  const place at = view ? find_or_begin({view->key, skb->dev->ifindex}) : datagrams_.end();
  if (at == datagrams_.end()) {
    kfree_skb(skb);
    return {nullptr, receive_verdict::dropped, {}};
  }

  switch (insert(*at, {view->start, view->end, skb, as_offered}, *view)) {
    case insertion::taken:
      if (at->seen == at->total && !at->gone_fast) return finish(at);
      return {nullptr, receive_verdict::slow, {}};
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
  return {nullptr, receive_verdict::dropped, {}};
}

packet_chain reassembly_table::gone_fast(const fragment_view& gone, const net_device* dev) {
  packet_chain ready;
  const place at = find_offered(gone.key, dev);
  if (at == datagrams_.end()) return ready;
  if (insert(*at, {gone.start, gone.end, nullptr, {}}, gone) != insertion::taken) return ready;
  at->gone_fast = true;
  const bool all_seen = at->seen == at->total;
  for (piece& part : at->pieces) {
    const bool is_last = at->total != 0 && part.end == at->total;
    if (part.skb == nullptr || part.as_offered.dev == nullptr || (is_last && !all_seen)) continue;
    sk_buff* skb = part.skb;
    let_go(part);
    restore_frame(skb, part.as_offered);
    ready.append(skb);
  }
  // With its last fragment the fast path has forgotten the datagram.
  if (all_seen || gone.last) forget(at);
  return ready;
}

/// The caller has the buffer from now on.
void reassembly_table::let_go(piece& part) {
  bytes_ -= memory_of(part.skb);
  part.skb = nullptr;
}

/// A datagram of which a fragment has come in by the same port; the end of the list when there is
/// none. The layer-3 device, which only the slow path tells, does not matter.
reassembly_table::place reassembly_table::find_offered(const fragment_key& id,
                                                       const net_device* dev) {
  for (auto at = index_.lower_bound({id, 0}); at != index_.end() && at->first.fragment == id;
       ++at) {
    for (const piece& part : at->second->pieces) {
      if (part.as_offered.dev == dev) return at->second;
    }
  }
  return datagrams_.end();
}

/// The end of the list when there are too many.
reassembly_table::place reassembly_table::find_or_begin(const key& id) {
  if (const auto known = index_.find(id); known != index_.end()) return known->second;
  if (datagrams_.size() >= max_datagrams_) {
    ++refused_;
    return datagrams_.end();
  }
  datagrams_.push_back({id, jiffies + lifetime, 0, 0, false, {}});
  write_once(waiting_, waiting_ + 1);
  const place at = std::prev(datagrams_.end());
  index_.emplace(id, at);
  rearm();
  return at;
}

reassembly_table::insertion reassembly_table::insert(datagram& into, const piece& what,
                                                     const fragment_view& view) {
  auto& pieces = into.pieces;
  const auto at = std::lower_bound(pieces.begin(), pieces.end(), what.start,
                                   [](const piece& p, u32 start) { return p.start < start; });
  if (at != pieces.end() && at->start == what.start && at->end == what.end) {
    return insertion::repeated;
  }
  if (at != pieces.end() && at->start < what.end) return insertion::conflicting;
  if (at != pieces.begin() && std::prev(at)->end > what.start) return insertion::conflicting;

  const u32 known_end = pieces.empty() ? 0 : pieces.back().end;
  if (view.last && (into.total != 0 || known_end > what.end)) return insertion::conflicting;
  if (into.total != 0 && what.end > into.total) return insertion::conflicting;
  if (what.end > view.max_end) return insertion::conflicting;
  const u32 memory = piece_memory + (what.skb != nullptr ? memory_of(what.skb) : 0);
  if (bytes_ + memory > max_bytes_) return insertion::no_room;

  pieces.insert(at, what);
  bytes_ += memory;
  into.seen += what.end - what.start;
  if (view.last) into.total = what.end;
  return insertion::taken;
}

/// A new buffer with the datagram; null when it is too long or without memory.
sk_buff* reassembly_table::put_together(const datagram& whole) {
  const sk_buff* first = whole.pieces.front().skb;
  const std::optional<fragment_view> view = read_fragment(first->data, first->len);
  const u32 length = view->header + whole.total;
  sk_buff* skb = whole.total <= view->max_end ? alloc_packet(length) : nullptr;
  if (skb == nullptr) return nullptr;

  std::memcpy(skb_put(skb, view->header), first->data, view->header);
  for (const piece& part : whole.pieces) {
    const u32 bytes = part.end - part.start;
    std::memcpy(skb_put(skb, bytes), part.skb->data + (part.skb->len - bytes), bytes);
  }
  skb->dev = first->dev;
  skb->rx_dev = first->rx_dev;
  skb->priority = first->priority;
  if (whole.id.fragment.version == 4) {
    mark_ip_packet(skb);
    make_whole(ip_header(skb), length);
  } else {
    const ipv6_chain chain = *read_ipv6_chain(first->data, first->len);
    make_ipv6_whole(skb->data, length, first, chain);
    mark_ipv6_packet(skb, view->header);
  }
  return skb;
}

reassembly_table::result reassembly_table::finish(place whole) {
  sk_buff* skb = put_together(*whole);
  result done{skb, skb != nullptr ? receive_verdict::slow : receive_verdict::dropped, {}};
  if (skb != nullptr && whole->id.fragment.version == 6) {
    for (piece& part : whole->pieces) {
      done.originals.append(part.skb);
      let_go(part);
    }
  }
  forget(whole);
  return done;
}

void reassembly_table::forget(place which) {
  for (piece& part : which->pieces) {
    sk_buff* skb = part.skb;
    bytes_ -= piece_memory;
    if (skb == nullptr) continue;
    let_go(part);
    kfree_skb(skb);
  }
  write_once(waiting_, waiting_ - 1);
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
    const piece& first = late->pieces.front();
    if (first.start == 0 && first.skb != nullptr) tell_sender(first.skb);
    forget(late);
  }
}

void reassembly_table::timer_function(unsigned long data) {
  const stack_guard guard;
  reinterpret_cast<reassembly_table*>(data)->expire();
}

}  // namespace tarvelo::stack
