// SPDX-License-Identifier: GPL-2.0-only
#include "stack/nat_ports.h"

#include "kernel/wire/ip.h"

namespace tarvelo::stack {
namespace {

/// Below are the ports of services.
constexpr u32 first_port = 1024;
constexpr u32 port_count = 65536 - first_port;

/// Fixed, unlike the table's own: where a search begins must not change from run to run.
constexpr u64 search_key = 0x243F6A8885A308D3;

/// Where the reply tuple keeps what the search varies; null for a protocol without it.
[[nodiscard]] u16* searched_port(nf_conntrack_tuple* reply) noexcept {
  switch (reply->dst.protonum) {
    case wire::ip_protocol::tcp:
    case wire::ip_protocol::udp:
      return &reply->dst.u;
    case wire::ip_protocol::icmp:
      return &reply->src.u;
    default:
      return nullptr;
  }
}

}  // namespace

bool choose_source(const conntrack_table& table, nf_conn* ct, u32 address) noexcept {
  nf_conntrack_tuple reply = ct->tuple[IP_CT_DIR_REPLY];
  reply.dst.u3.ip = address;
  bool free = !table.contains(reply);
  u16* port = searched_port(&reply);
  if (!free && port != nullptr) {
    const u64 start = hash_tuple(ct->tuple[IP_CT_DIR_ORIGINAL], search_key);
    for (u32 tried = 0; tried < port_count && !free; ++tried) {
      *port = wire::htons(static_cast<u16>(first_port + (start + tried) % port_count));
      free = !table.contains(reply);
    }
  }
  if (free) ct->tuple[IP_CT_DIR_REPLY] = reply;
  return free;
}

}  // namespace tarvelo::stack
