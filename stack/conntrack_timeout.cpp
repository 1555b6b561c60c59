// SPDX-License-Identifier: GPL-2.0-only
#include "stack/conntrack_timeout.h"

#include "kernel/jiffies.h"
#include "stack/conntrack_tcp.h"

namespace tarvelo::stack {
namespace {

/// A datagram nobody has answered yet.
constexpr u32 unanswered_udp = 30 * HZ;
constexpr u32 icmp_query = 30 * HZ;
/// Of other protocols nothing is known but that packets pass.
constexpr u32 any_protocol = 600 * HZ;

}  // namespace

u32 connection_timeout(const nf_conn* ct) noexcept {
  const u8 protocol = ct->tuple[IP_CT_DIR_ORIGINAL].dst.protonum;
  switch (protocol) {
    case wire::ip_protocol::tcp:
      return tcp_timeout(ct);
    case wire::ip_protocol::udp:
      return (ct->status & IPS_SEEN_REPLY) != 0 ? nf_ct_established_timeout(protocol)
                                                : unanswered_udp;
    case wire::ip_protocol::icmp:
    case wire::ip_protocol::icmpv6:
      return icmp_query;
    default:
      return any_protocol;
  }
}

}  // namespace tarvelo::stack
