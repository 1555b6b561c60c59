// SPDX-License-Identifier: GPL-2.0-only
#include "stack/nat_ports.h"

#include "kernel/jiffies.h"
#include "kernel/wire/ip.h"
#include "stack/conntrack_packet.h"

namespace tarvelo::stack {
namespace {

/// Below are the ports of services.
constexpr u32 first_port = 1024;
constexpr u32 port_count = 65536 - first_port;

/// Fixed, unlike the table's own: where a search begins must not change from run to run.
constexpr u64 search_key = 0x243F6A8885A308D3;

/// How long a vain search is not repeated.
constexpr u32 vain_search_rest = 1 * HZ;

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

/// Looks for a port with which `reply` is in the table in neither direction, and leaves it there.
[[nodiscard]] bool search(const conntrack_table& table, nf_conntrack_tuple* reply, u16* port,
                          u64 start) noexcept {
  for (u32 tried = 0; tried < port_count; ++tried) {
    *port = wire::htons(static_cast<u16>(first_port + (start + tried) % port_count));
    if (!table.contains(*reply)) return true;
  }
  return false;
}

}  // namespace

source_chooser::vain_search& source_chooser::memory_of(const nf_conntrack_tuple& answers) noexcept {
  return vain_[hash_tuple(answers, search_key) % remembered];
}

bool source_chooser::choose(const conntrack_table& table, nf_conn* ct, u32 address) noexcept {
  nf_conntrack_tuple reply = ct->tuple[IP_CT_DIR_REPLY];
  reply.dst.u3.ip = address;
  if (table.contains(reply)) {
    u16* port = searched_port(&reply);
    if (port == nullptr) return false;
    *port = 0;
    vain_search& memory = memory_of(reply);
    if (memory.was_made && same_tuple(memory.answers, reply) &&
        time_within(jiffies, memory.at, vain_search_rest)) {
      return false;
    }
    const nf_conntrack_tuple answers = reply;
    const u64 start = hash_tuple(ct->tuple[IP_CT_DIR_ORIGINAL], search_key);
    if (!search(table, &reply, port, start)) {
      memory = {answers, jiffies, true};
      return false;
    }
  }
  ct->tuple[IP_CT_DIR_REPLY] = reply;
  return true;
}

}  // namespace tarvelo::stack
