// SPDX-License-Identifier: GPL-2.0-only
//
// The choice of a port (or ICMP identifier) for a connection whose source is translated.
//
// Answers must find back to one connection only, so the reply tuple has to differ from every tuple
// in the table, of either direction. The source's own port is kept when it is free. Otherwise the
// search begins at a place that depends on the connection alone and goes up from there: the same
// packets get the same ports in every run, and connections from one host do not queue up behind
// each other. Protocols without ports have only the one reply tuple.
//
// A search that finds nothing looks at every port. Only a host with tens of thousands of
// connections to one peer can bring that about, but then again with every packet; so for a second
// after a vain search the same answers are refused without another.
//
// Stack's lock; a choice holds until the lock is let go or the connection is in the table.
#pragma once

#include "stack/conntrack_table.h"

namespace tarvelo::stack {

class source_chooser {
 public:
  /// Sets the reply tuple of a connection that is not in the table yet, so that its packets leave
  /// from `address` (network order). False, the tuple unchanged, when all are taken.
  [[nodiscard]] bool choose(const conntrack_table& table, nf_conn* ct, u32 address) noexcept;

 private:
  /// A search that was in vain: the answers that it was for, their port 0.
  struct vain_search {
    nf_conntrack_tuple answers;
    u32 at;  ///< jiffies
    bool was_made;
  };
  static constexpr std::size_t remembered = 8;

  [[nodiscard]] vain_search& memory_of(const nf_conntrack_tuple& answers) noexcept;

  vain_search vain_[remembered] = {};
};

}  // namespace tarvelo::stack
