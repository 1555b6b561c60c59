// SPDX-License-Identifier: GPL-2.0-only
//
// What can be about a packet: changes to one that is good otherwise, for a drawing of lots.
#pragma once

#include "tests/differential/lots.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::test {

/// What is special about a packet, as a report names it.
struct peculiarity {
  const char* name = "plain";
  /// The stack refuses it, but the fast path does not look: hop counts, checksums, the order of
  /// TCP flags and lengths behind the IP header are for the receiver.
  bool unchecked = false;
};

/// What a packet must be of for a change.
enum needs : u8 {
  nothing = 0,
  of_tcp = 1,
  of_udp = 2,
  of_ipv4 = 4,
  in_the_end = 8,
  rarely = 16,  ///< before the end
};

struct change {
  peculiarity what;
  u8 needs;
  void (*make)(packet& p, small_random& random);
  bool half_closes = false;
};

inline constexpr change changes[] = {
    {{"don't fragment"}, of_ipv4, [](packet& p, small_random&) { p.dont_fragment(); }},
    {{"options"},
     of_ipv4,
     [](packet& p, small_random& random) {
       p.options(from_hex(chance(random, 2) ? "94040000" : "0101070704000000"));
     }},
    {{"syn"},
     of_tcp,
     [](packet& p, small_random& random) {
       p.flags(chance(random, 2) ? wire::tcp_flag::syn : wire::tcp_flag::syn | wire::tcp_flag::ack);
     }},
    {{"fin"},
     of_tcp | in_the_end,
     [](packet& p, small_random&) { p.flags(wire::tcp_flag::fin | wire::tcp_flag::ack); },
     true},
    {{"rst"},
     of_tcp | rarely,
     [](packet& p, small_random& random) {
       p.flags(chance(random, 2) ? wire::tcp_flag::rst : wire::tcp_flag::rst | wire::tcp_flag::ack);
     }},
    {{"push and urgent"}, of_tcp, [](packet& p, small_random&) { p.flags(0x38); }},
    {{"cut short by its own length"},
     nothing,
     [](packet& p, small_random& random) {
       // For IPv6 nothing behind the header, for IPv4 not even that.
       p.total_length(random() % 8);
     }},
    {{"half a transport header"},
     of_ipv4,
     [](packet& p, small_random& random) { p.total_length(wire::ipv4_min_length + random() % 8); }},
    {{"longer than it is"}, nothing, [](packet& p, small_random&) { p.total_length(1900); }},
    {{"another version"}, nothing, [](packet& p, small_random&) { p.version_ihl(0x55); }},
    {{"short IP header"}, of_ipv4, [](packet& p, small_random&) { p.version_ihl(0x44); }},
    {{"other protocol"},
     nothing,
     [](packet& p, small_random& random) {
       p.type(one_of({u16{1}, u16{47}, u16{50}, u16{58}, u16{132}}, random));
     }},
    {{"no hops left", true}, nothing, [](packet& p, small_random& random) { p.ttl(random() % 2); }},
    {{"wrong header checksum", true},
     of_ipv4,
     [](packet& p, small_random& random) { p.ip_checksum(any_word(random)); }},
    {{"wrong transport checksum", true},
     nothing,
     [](packet& p, small_random& random) { p.l4_checksum(any_word(random) | 1); }},
    {{"impossible flags", true},
     of_tcp,
     [](packet& p, small_random& random) { p.flags(chance(random, 2) ? 0 : 0x28); }},
    {{"wrong UDP length", true},
     of_udp,
     [](packet& p, small_random& random) { p.udp_length(any_word(random)); }},
    {{"wrong TCP header length", true},
     of_tcp,
     [](packet& p, small_random& random) { p.data_offset(random() % 16); }},
};

}  // namespace tarvelo::test
