// SPDX-License-Identifier: GPL-2.0-only
//
// Reassembly of fragments of both families (RFC 791, 815; RFC 8200, 4.5), before connection
// tracking: the tracker and the rules need the transport header, which only the first fragment has.
//
// An IPv4 datagram goes on whole. An IPv6 one is only looked at whole: a router does not fragment
// for others, so what goes on are the fragments as they came, which the result holds as well.
//
// The fast path knows a datagram from its first fragment on. Fragments that arrive before it are
// handed back and wait here, as they came; when the first one then goes the fast way, so must they,
// or the datagram would never be whole at its receiver. gone_fast() gives them out for that, the
// last one only after all others: with it the fast path forgets the datagram.
//
// What an attacker could do with it, and what stops him:
//   - fill memory with datagrams that never become whole: the number of datagrams and the memory of
//     the held buffers are bounded, and what is not whole after 30 s goes;
//   - hide a header under a second fragment: any overlap ends the datagram (RFC 5722 says so for
//     IPv6); only an exact repetition, which networks do make, is passed over;
//   - poison another's datagram from another interface: the device is part of the key;
//   - build a datagram longer than 65535 bytes: ends the datagram.
//
// The pieces of a datagram do not overlap and none is empty, so it is whole when their lengths add
// up to the end that the last fragment gave.
//
// Guarded by the stack's lock. One timer serves all: every datagram has the same time, so they
// expire in the order in which they began.
#pragma once

#include <compare>
#include <list>
#include <map>
#include <vector>

#include "kernel/atomic.h"
#include "kernel/jiffies.h"
#include "kernel/skbuff.h"
#include "kernel/timer.h"
#include "stack/config.h"
#include "stack/fragment_view.h"
#include "stack/packet_chain.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// How a frame was when it was offered to the fast path: enough to offer it again.
struct offered_frame {
  static constexpr u32 max_link_length = 18;  ///< an Ethernet header with its tag

  net_device* dev;  ///< null: was not offered
  u32 priority;
  u32 link_length;  ///< bytes in front of the IP header
  u8 link[max_link_length];
};

class reassembly_table {
 public:
  /// Jiffies from a datagram's first arrival to the loss of what has come of it.
  static constexpr u32 lifetime = 30 * HZ;

  explicit reassembly_table(const limits& bounds);
  ~reassembly_table() { clear(); }
  reassembly_table(const reassembly_table&) = delete;
  reassembly_table& operator=(const reassembly_table&) = delete;

  struct result {
    sk_buff* datagram;        ///< the caller's; null while there is none
    receive_verdict verdict;  ///< of the fragment, when there is none
    packet_chain originals;   ///< of an IPv6 datagram: its fragments in order
  };
  /// Takes a fragment: `data` at its checked IP header, `len` cut to it, `network_header` set. A
  /// datagram that it completes is a new linear buffer with the same three properties, no longer
  /// marked as a fragment, with headroom for any encapsulation.
  [[nodiscard]] result add(sk_buff* skb, const offered_frame& as_offered);

  /// The fast path has taken a fragment that came in by `dev`. What has waited for it is the
  /// caller's to offer, each as it was offered before, and to free when it is not taken now.
  [[nodiscard]] packet_chain gone_fast(const fragment_view& gone, const net_device* dev);

  /// True while anything waits; any context.
  [[nodiscard]] bool anything_waits() const noexcept { return read_once(waiting_) != 0; }

  /// Frees what is held and stops the timer; process context, stack's lock not held.
  void clear();

  /// Fragments and datagrams turned away because a bound was reached.
  [[nodiscard]] u64 refused() const noexcept { return refused_; }

 private:
  struct key {
    fragment_key fragment;
    int ifindex;
    friend auto operator<=>(const key&, const key&) = default;
  };
  /// A fragment's place in the datagram's data, in bytes; [start, end).
  struct piece {
    u32 start;
    u32 end;
    sk_buff* skb;  ///< null: it has gone the fast way
    offered_frame as_offered;
  };
  /// Counts against the bound as well: of a fragment that has gone, it is all that is left.
  static constexpr u32 piece_memory = sizeof(piece);
  struct datagram {
    key id;
    u32 deadline;               ///< jiffies
    u32 total;                  ///< bytes of data, 0 until the last fragment is there
    u32 seen;                   ///< bytes of data that are there or have gone the fast way
    bool gone_fast;             ///< some have
    std::vector<piece> pieces;  ///< by start
  };
  using place = std::list<datagram>::iterator;
  enum class insertion : u8 {
    taken,
    repeated,     ///< exactly what is there already
    conflicting,  ///< the datagram cannot be put together
    no_room,
  };

  [[nodiscard]] place find_or_begin(const key& id);
  [[nodiscard]] place find_offered(const fragment_key& id, const net_device* dev);
  [[nodiscard]] insertion insert(datagram& into, const piece& what, const fragment_view& view);
  [[nodiscard]] sk_buff* put_together(const datagram& whole);
  void let_go(piece& part);
  [[nodiscard]] result finish(place whole);
  void forget(place which);
  void rearm();
  void expire();
  static void timer_function(unsigned long data);

  const u32 max_datagrams_;
  const u32 max_bytes_;
  std::list<datagram> datagrams_;  ///< in the order of their deadlines
  std::map<key, place> index_;
  u32 bytes_ = 0;  ///< of memory in held buffers and their places
  u64 refused_ = 0;
  u32 waiting_ = 0;  ///< datagrams; changed under the lock, read without
  timer_list timer_{};
};

}  // namespace tarvelo::stack
