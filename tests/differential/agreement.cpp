// SPDX-License-Identifier: GPL-2.0-only
#include "tests/differential/agreement.h"

#include <algorithm>
#include <optional>

#include "kernel/wire/ethernet.h"
#include "kernel/wire/gre.h"
#include "kernel/wire/ip.h"
#include "kernel/wire/l2tp.h"
#include "kernel/wire/ppp.h"
#include "tests/support/naive_checksum.h"
#include "tests/support/packet_layer.h"

namespace tarvelo::test {
namespace {

constexpr u16 fragment_bits = wire::ip_frag::more_fragments | wire::ip_frag::offset_mask;

/// A length field, and the first byte that it counts.
struct length_field {
  std::size_t at;
  std::size_t from;
};

/// Where the innermost IP packet of a frame is, and what is around it.
struct placed_packet {
  std::size_t ip;
  bool ipv6;
  std::vector<length_field> lengths;
  std::vector<std::size_t> outer;  ///< IPv4 headers around it

  [[nodiscard]] std::size_t end(const bytes& f) const {
    return ipv6 ? ip + wire::ipv6_length + get16(f, ip + ipv6_payload_length)
                : ip + get16(f, ip + ipv4_length);
  }
};

[[nodiscard]] std::size_t header_length(const bytes& f, std::size_t ip) {
  return (f[ip] & 0x0FU) * 4U;
}

[[nodiscard]] bool is_whole(const bytes& f, const placed_packet& p) {
  const std::size_t least = p.ipv6 ? wire::ipv6_length : wire::ipv4_min_length;
  if (p.ip + least > f.size()) return false;
  return p.ipv6 || (header_length(f, p.ip) >= least && p.ip + header_length(f, p.ip) <= f.size());
}

/// Goes through the headers from the outside in.
struct walker {
  const bytes& f;
  placed_packet found{};

  [[nodiscard]] bool at_type(std::size_t at, u16 type) {
    switch (type) {
      case wire::ethertype::vlan:
        return at_type(at + wire::vlan_tag_length, get16(f, at + 2));
      case wire::ethertype::pppoe_session:
        found.lengths.push_back({at + pppoe_payload_length, at + pppoe_protocol});
        return at_ppp(at + pppoe_protocol);
      case wire::ethertype::ipv4:
        return at_ipv4(at);
      case wire::ethertype::ipv6:
        found.ip = at;
        found.ipv6 = true;
        return true;
      default:
        return false;
    }
  }

  [[nodiscard]] bool at_ppp(std::size_t at) {
    const wire::ppp_framing framing =
        wire::read_ppp_framing(&f[at], static_cast<u32>(f.size() - at));
    const bool ipv6 = framing.protocol == wire::ppp_protocol::ipv6;
    if (!ipv6 && framing.protocol != wire::ppp_protocol::ipv4) return false;
    return at_type(at + framing.length, ipv6 ? wire::ethertype::ipv6 : wire::ethertype::ipv4);
  }

  [[nodiscard]] bool at_ipv4(std::size_t at) {
    found.ip = at;
    if (!is_whole(f, found)) return false;
    const std::size_t l4 = at + header_length(f, at);
    const u8 protocol = f[at + ipv4_protocol];
    constexpr std::size_t tunnel_header = 18;
    if ((get16(f, at + ipv4_fragment) & fragment_bits) != 0) return true;
    if (l4 + tunnel_header > f.size()) return true;
    if (protocol == wire::ip_protocol::gre) {
      found.lengths.push_back({at + ipv4_length, at});
      found.outer.push_back(at);
      const auto& gre = *reinterpret_cast<const wire::pptp_gre_hdr*>(&f[l4]);
      found.lengths.push_back({l4 + gre_payload_length, l4 + gre.length()});
      return at_ppp(l4 + gre.length());
    }
    if (protocol == wire::ip_protocol::udp && get16(f, l4) == wire::l2tp_port) {
      found.lengths.push_back({at + ipv4_length, at});
      found.outer.push_back(at);
      found.lengths.push_back({l4 + udp_datagram_length, l4});
      const std::size_t l2tp = l4 + sizeof(wire::udphdr);
      return at_ppp(l2tp + wire::l2tp_header_length(get16(f, l2tp)));
    }
    return true;
  }
};

[[nodiscard]] std::optional<placed_packet> packet_in(const sent_by_port& sent) {
  const bytes& f = sent.frame;
  walker w{f};
  const bool is_there =
      sent.kind == link::ip
          ? w.at_type(0, f[0] >> 4 == 6 ? wire::ethertype::ipv6 : wire::ethertype::ipv4)
          : w.at_type(wire::ethernet_length, get16(f, 2 * wire::mac_length));
  return is_there && is_whole(f, w.found) ? std::optional(w.found) : std::nullopt;
}

[[nodiscard]] bool sum_holds(const bytes& f, std::size_t ip) {
  return naive_sum().add(std::span(f).subspan(ip, header_length(f, ip))).checksum() == 0;
}

void sum_up(bytes& f, std::size_t ip) {
  put16(f, ip + ipv4_checksum, 0);
  put16(f, ip + ipv4_checksum,
        naive_sum().add(std::span(f).subspan(ip, header_length(f, ip))).checksum());
}

/// Lengths that count what is behind the packet are corrected; wrong ones stay.
void cut_behind(bytes& f, const placed_packet& p) {
  const std::size_t end = p.end(f);
  if (end >= f.size()) return;
  for (const length_field& length : p.lengths) {
    const u16 counted = get16(f, length.at);
    const std::size_t packet = end - length.from;
    if (counted > packet && counted <= f.size() - length.from) {
      put16(f, length.at, static_cast<u16>(packet));
    }
  }
  f.resize(end);
}

void take_one_hop(bytes& f, const placed_packet& p) {
  u8& hops = f[p.ip + (p.ipv6 ? ipv6_hop_limit : ipv4_ttl)];
  --hops;
  if (!p.ipv6) sum_up(f, p.ip);
}

/// What stands in front of a packet, and of its header what all fragments of a datagram have in
/// common; 0 for the rest.
[[nodiscard]] bytes common_beginning(const bytes& f, const placed_packet& p) {
  const auto whole = static_cast<std::ptrdiff_t>(p.ip + wire::ipv4_min_length);
  bytes beginning(f.begin(), f.begin() + whole);
  for (const length_field& length : p.lengths)
    put16(beginning, length.at, 0);
  for (const std::size_t ip : p.outer)
    put16(beginning, ip + ipv4_checksum, 0);
  for (const std::size_t field : {ipv4_length, ipv4_fragment, ipv4_checksum})
    put16(beginning, p.ip + field, 0);
  beginning[p.ip] = 0;
  return beginning;
}

/// A datagram that begins with a fragment, as far as the frames have shown it.
struct growing_datagram {
  bytes* frame = nullptr;
  placed_packet place;

  /// False when that is no fragment that belongs here.
  [[nodiscard]] bool takes(const bytes& f, const placed_packet& p, u16 field) {
    if (frame == nullptr || place.ip != p.ip) return false;
    const std::size_t data = frame->size() - p.ip - header_length(*frame, p.ip);
    if ((field & wire::ip_frag::offset_mask) * 8U != data) return false;
    if (common_beginning(f, p) != common_beginning(*frame, place)) return false;
    const std::size_t added = p.ip + header_length(f, p.ip);
    frame->insert(frame->end(), f.begin() + static_cast<std::ptrdiff_t>(added), f.end());
    place.lengths.push_back({p.ip + ipv4_length, p.ip});
    for (const length_field& length : place.lengths)
      put16(*frame, length.at, static_cast<u16>(frame->size() - length.from));
    place.lengths.pop_back();
    const bool more = (field & wire::ip_frag::more_fragments) != 0;
    put16(*frame, p.ip + ipv4_fragment, more ? wire::ip_frag::more_fragments : 0);
    place.outer.push_back(p.ip);
    for (const std::size_t ip : place.outer)
      sum_up(*frame, ip);
    place.outer.pop_back();
    return true;
  }
};

}  // namespace

std::vector<sent_by_port> as_by_stack(std::vector<sent_by_port> routed) {
  for (sent_by_port& sent : routed) {
    const std::optional<placed_packet> p = packet_in(sent);
    if (!p) continue;
    bytes& f = sent.frame;
    const auto right = [&f](std::size_t ip) { return sum_holds(f, ip); };
    // A wrong sum is left to be found.
    if (!std::ranges::all_of(p->outer, right) || (!p->ipv6 && !right(p->ip))) continue;
    cut_behind(f, *p);
    take_one_hop(f, *p);
    for (const std::size_t ip : p->outer)
      sum_up(f, ip);
  }
  return routed;
}

std::vector<sent_by_port> without_own_numbers(std::vector<sent_by_port> sent) {
  for (sent_by_port& one : sent) {
    const std::optional<placed_packet> p = packet_in(one);
    if (!p || p->ipv6 || one.frame[p->ip + ipv4_protocol] != wire::ip_protocol::icmp) continue;
    put16(one.frame, p->ip + ipv4_id, 0);
    sum_up(one.frame, p->ip);
  }
  return sent;
}

std::vector<sent_by_port> without_fragments(const std::vector<sent_by_port>& sent) {
  std::vector<sent_by_port> whole;
  whole.reserve(sent.size());
  growing_datagram last;
  for (const sent_by_port& one : sent) {
    const std::optional<placed_packet> p = packet_in(one);
    const u16 field = p && !p->ipv6 ? get16(one.frame, p->ip + ipv4_fragment) & fragment_bits : 0;
    if (field != 0 && last.takes(one.frame, *p, field)) continue;
    whole.push_back(one);
    if (field == wire::ip_frag::more_fragments) last = {&whole.back().frame, *p};
  }
  return whole;
}

}  // namespace tarvelo::test
