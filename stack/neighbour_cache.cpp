// SPDX-License-Identifier: GPL-2.0-only
#include "stack/neighbour_cache.h"

#include <cstring>
#include <vector>

#include "kernel/route.h"
#include "stack/arp.h"
#include "stack/icmp.h"
#include "stack/icmpv6.h"
#include "stack/ipv6_packet.h"
#include "stack/link_state.h"
#include "stack/nd.h"
#include "stack/stack_core.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

// Times in jiffies, as RFC 4861 has them where it speaks.
constexpr u32 reachable_time = 30 * HZ;
constexpr u32 stale_time = 60 * HZ;  ///< before an entry that no slow packet uses is probed
constexpr u32 delay_time = 5 * HZ;   ///< for traffic to confirm an entry by itself
constexpr u32 retry_time = 1 * HZ;
constexpr u32 failed_time = 5 * HZ;  ///< before a failed entry makes room
constexpr u32 max_probes = 3;

constexpr u8 configured_states = NUD_PERMANENT | NUD_NOARP;

void timer_function(unsigned long data);

/// Drops a reference to an entry at the end of a scope.
class neighbour_ref {
 public:
  explicit neighbour_ref(neighbour* n) noexcept : n_(n) {}
  ~neighbour_ref() {
    if (n_ != nullptr) neigh_release(n_);
  }
  neighbour_ref(const neighbour_ref&) = delete;
  neighbour_ref& operator=(const neighbour_ref&) = delete;
  [[nodiscard]] neighbour* get() const noexcept { return n_; }

 private:
  neighbour* n_;
};

void start_timer(neighbour* n, u32 after) noexcept {
  if (mod_timer(&n->timer, jiffies + after) == 0) atomic_inc(&n->refcnt);
}

void stop_timer(neighbour* n) noexcept {
  if (del_timer(&n->timer) != 0) neigh_release(n);
}

neigh_table* table_of(const ip_address& address) noexcept {
  return std::holds_alternative<u32>(address) ? &arp_tbl : &nd_tbl;
}

const void* key_of(const ip_address& address) noexcept {
  if (const u32* ipv4 = std::get_if<u32>(&address); ipv4 != nullptr) return ipv4;
  return std::get_if<wire::in6_addr>(&address);
}

/// Finds or makes an entry and readies a new one's timer; null and counted when there is no room.
neighbour* obtain(net_device* dev, const ip_address& address) noexcept {
  neighbour* n = neigh_create(table_of(address), key_of(address), dev);
  if (n == nullptr) {
    ++core().neighbours_refused;
    return nullptr;
  }
  if (n->timer.function == nullptr) {
    setup_timer(&n->timer, timer_function, reinterpret_cast<unsigned long>(n));
  }
  return n;
}

template <typename Address>
Address address_of(const neighbour* n) noexcept {
  Address address;
  std::memcpy(&address, n->primary_key, sizeof address);
  return address;
}

/// Asks for the entry's address; `mac` is whom to ask, null for everyone.
void ask_for(neighbour* n, const u8* mac) {
  if (n->tbl == &nd_tbl) {
    nd_solicit(n->dev, address_of<wire::in6_addr>(n), mac);
  } else {
    arp_request(n->dev, address_of<u32>(n), mac);
  }
}

/// Enters a state that keeps the hardware address, for a time.
void enter(neighbour* n, u8 state, u32 time) noexcept {
  neigh_update(n, nullptr, state);
  start_timer(n, time);
}

/// The entry's queue, which is the caller's from now on.
sk_buff* take_queue(neighbour* n) noexcept {
  sk_buff* queue = n->queue_head;
  n->queue_head = nullptr;
  n->queue_tail = nullptr;
  n->queue_length = 0;
  return queue;
}

/// Hands each packet of a queue to `take`, unlinked.
template <typename Take>
void drain(sk_buff* queue, Take take) {
  while (queue != nullptr) {
    sk_buff* skb = queue;
    queue = skb->next;
    skb->next = nullptr;
    take(skb);
  }
}

receive_verdict wait_for_address(sk_buff* skb, neighbour* n) noexcept {
  if (n->queue_length >= core().table_limits.packets_per_neighbour) return discard(skb);
  // The route is not needed again, and one attached without a reference must not be kept.
  skb_dst_drop(skb);
  skb->next = nullptr;
  if (n->queue_tail != nullptr) {
    n->queue_tail->next = skb;
  } else {
    n->queue_head = skb;
  }
  n->queue_tail = skb;
  ++n->queue_length;
  return receive_verdict::slow;
}

receive_verdict transmit(sk_buff* skb, const neighbour* n) noexcept {
  u8 header[wire::ethernet_length];
  if (!neigh_hh_copy(n, header)) return discard(skb);
  std::memcpy(skb_push(skb, wire::ethernet_length), header, wire::ethernet_length);
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  // The device may keep the buffer in a batch: what it no longer needs goes now.
  nf_reset(skb);
  skb_dst_drop(skb);
  return dev_queue_xmit(skb) == NETDEV_TX_OK ? receive_verdict::slow : receive_verdict::dropped;
}

/// Asks everyone in state INCOMPLETE, the last known address in state PROBE.
void ask(neighbour* n) {
  ++n->probes;
  if (n->nud_state != NUD_PROBE) {
    ask_for(n, nullptr);
    return;
  }
  u8 mac[wire::mac_length];
  neigh_ha_snapshot(mac, n);
  ask_for(n, mac);
}

void begin_asking(neighbour* n, u8 state) {
  n->probes = 0;
  enter(n, state, retry_time);
  ask(n);
}

receive_verdict reject_unreachable(sk_buff* skb) {
  return is_ipv6_packet(skb) ? reject_ipv6(skb, icmpv6_error::address_unreachable())
                             : reject(skb, icmp_error::host_unreachable());
}

/// Gives up. What waits is answered; connections that used a lost address leave the fast path.
void fail(neighbour* n) {
  const bool was_known = (n->nud_state & NUD_VALID) != 0;
  enter(n, NUD_FAILED, failed_time);
  drain(take_queue(n), [](sk_buff* skb) { static_cast<void>(reject_unreachable(skb)); });
  if (was_known) path_has_changed(n->dev);
}

void ask_again(neighbour* n) {
  if (n->probes >= max_probes) {
    fail(n);
    return;
  }
  start_timer(n, retry_time);
  ask(n);
}

void time_is_up(neighbour* n) {
  switch (n->nud_state) {
    case NUD_REACHABLE:
      return enter(n, NUD_STALE, stale_time);
    case NUD_STALE:
    case NUD_DELAY:
      return begin_asking(n, NUD_PROBE);
    case NUD_PROBE:
    case NUD_INCOMPLETE:
      return ask_again(n);
    case NUD_FAILED:
      return neigh_remove(n);
    default:
      return;
  }
}

void timer_function(unsigned long data) {
  const stack_guard guard;
  const neighbour_ref n(reinterpret_cast<neighbour*>(data));  // the timer's
  // Set anew between running out and getting the lock: not this time.
  if (!timer_pending(&n.get()->timer)) time_is_up(n.get());
}

/// Unlinks an entry. State 0 tells a timer that is just running out to do nothing.
void forget(neighbour* n) {
  stop_timer(n);
  drain(take_queue(n), [](sk_buff* skb) { kfree_skb(skb); });
  neigh_update(n, nullptr, 0);
  neigh_remove(n);
}

struct device_entries {
  const net_device* dev;
  u8 spared_states;
  std::vector<neighbour*> found;  ///< a reference on each
};

void collect_entry(neighbour* n, void* context) {
  auto* wanted = static_cast<device_entries*>(context);
  if (n->dev != wanted->dev || (n->nud_state & wanted->spared_states) != 0) return;
  atomic_inc(&n->refcnt);
  wanted->found.push_back(n);
}

/// In two steps, because freeing what waits may end a connection and so call the module, which is
/// not to happen inside a walk of the kernel's table.
void forget_device(const net_device* dev, u8 spared_states) {
  device_entries wanted{dev, spared_states, {}};
  neigh_for_each(&arp_tbl, collect_entry, &wanted);
  neigh_for_each(&nd_tbl, collect_entry, &wanted);
  for (neighbour* n : wanted.found) {
    forget(n);
    neigh_release(n);
  }
}

/// The state that a learnt address puts an entry in, or 0 when it tells nothing new.
u8 state_after(const neighbour* n, bool same_address, neighbour_evidence evidence) noexcept {
  const bool asked = (n->nud_state & (NUD_INCOMPLETE | NUD_PROBE)) != 0;
  const bool is_known = (n->nud_state & NUD_VALID) != 0;
  if (evidence == neighbour_evidence::hint && is_known && !same_address) return 0;
  const bool answers =
      evidence == neighbour_evidence::answer || evidence == neighbour_evidence::hint;
  if (answers && asked) return NUD_REACHABLE;
  return same_address ? 0 : NUD_STALE;
}

void note_address(neighbour* n, const u8* mac, u8 state) {
  const bool changed = neigh_update(n, mac, state);
  if (state == NUD_REACHABLE) n->confirmed = jiffies;
  start_timer(n, state == NUD_REACHABLE ? reachable_time : stale_time);
  drain(take_queue(n), [n](sk_buff* skb) { static_cast<void>(transmit(skb, n)); });
  if (changed) path_has_changed(n->dev);
}

bool add_configured(net_device* dev, const ip_address& address, const u8* mac, u8 state) {
  const neighbour_ref n(obtain(dev, address));
  if (n.get() == nullptr) return false;
  neigh_update(n.get(), mac, state);
  return true;
}

}  // namespace

receive_verdict neighbour_output(sk_buff* skb, const ip_address& next_hop) {
  const neighbour_ref n(obtain(skb->dev, next_hop));
  if (n.get() == nullptr) return discard(skb);
  const u8 state = n.get()->nud_state;
  if ((state & NUD_VALID) != 0) {
    if (state == NUD_STALE) enter(n.get(), NUD_DELAY, delay_time);
    return transmit(skb, n.get());
  }
  const receive_verdict waiting = wait_for_address(skb, n.get());
  if (state != NUD_INCOMPLETE) begin_asking(n.get(), NUD_INCOMPLETE);
  return waiting;
}

void neighbour_learn(net_device* dev, const ip_address& address, const u8* mac,
                     neighbour_evidence evidence) {
  const bool may_enter = evidence == neighbour_evidence::question;
  const neighbour_ref n(may_enter ? obtain(dev, address)
                                  : neigh_lookup(table_of(address), key_of(address), dev));
  if (n.get() == nullptr || (n.get()->nud_state & configured_states) != 0) return;

  const bool has_address = (n.get()->nud_state & NUD_VALID) != 0;
  if (mac == nullptr && !has_address) return;
  const bool same_address =
      has_address && (mac == nullptr || std::memcmp(n.get()->ha, mac, wire::mac_length) == 0);
  const u8 state = state_after(n.get(), same_address, evidence);
  if (state != 0) note_address(n.get(), mac, state);
}

bool neighbour_add_static(net_device* dev, const ip_address& address,
                          const u8 mac[wire::mac_length]) {
  return add_configured(dev, address, mac, NUD_PERMANENT);
}

bool neighbour_add_point_to_point(net_device* dev) {
  return add_configured(dev, u32{0}, nullptr, NUD_NOARP) &&
         add_configured(dev, wire::in6_addr{}, nullptr, NUD_NOARP);
}

void neighbour_forget_learnt(net_device* dev) {
  forget_device(dev, configured_states);
}

void neighbour_forget_all(net_device* dev) {
  forget_device(dev, 0);
}

}  // namespace tarvelo::stack
