// SPDX-License-Identifier: GPL-2.0-only
#include "stack/conntrack_icmp.h"

#include "stack/checksum.h"

namespace tarvelo::stack {
namespace {

/// Errors are short and rare: their checksum is made anew.
void sum_error(const ip_span& error) noexcept {
  auto& icmp = *reinterpret_cast<wire::icmphdr*>(error.transport());
  icmp.checksum = {};
  const u32 sum = checksum_add(error.transport(), error.transport_bytes());
  icmp.checksum = wire::be16::from_raw(checksum_finish(sum));
}

}  // namespace

found_connection find_related(const conntrack_table& table, const ip_span& error) noexcept {
  ip_span quoted;
  nf_conntrack_tuple tuple;
  if (!quoted_packet(error, &quoted) || !read_tuple(quoted, &tuple)) {
    return {nullptr, IP_CT_DIR_ORIGINAL};
  }
  // The quoted packet is as it left the router, so its answer's tuple is the one in the table.
  return table.find(inverse(tuple));
}

void translate_error(const ip_span& error, const nf_conn* ct, ip_conntrack_dir dir,
                     packet_end end) noexcept {
  ip_span quoted;
  if (!is_translated(ct, dir, end) || !quoted_packet(error, &quoted)) return;
  const endpoint to = translated_end(ct, dir, end);
  const packet_end quoted_end =
      end == packet_end::source ? packet_end::destination : packet_end::source;
  rewrite_end(quoted, quoted_end, to);
  rewrite_address(error.ipv4(), end, to.address);
  sum_error(error);
}

void restore_own_error(const ip_span& error, const nf_conn* ct, ip_conntrack_dir dir) noexcept {
  ip_span quoted;
  if (!quoted_packet(error, &quoted)) return;
  const endpoint sender = arriving_end(ct, dir, packet_end::source);
  rewrite_end(quoted, packet_end::source, sender);
  rewrite_end(quoted, packet_end::destination, arriving_end(ct, dir, packet_end::destination));
  rewrite_address(error.ipv4(), packet_end::destination, sender.address);
  sum_error(error);
}

}  // namespace tarvelo::stack
