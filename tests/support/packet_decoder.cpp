// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/packet_decoder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "tests/support/naive_checksum.h"

namespace tarvelo::test {
namespace {

template <typename Header>
std::optional<Header> read(std::span<const u8> frame, std::size_t at) {
  if (at > frame.size() || frame.size() - at < sizeof(Header)) return std::nullopt;
  Header header;
  std::memcpy(&header, frame.data() + at, sizeof header);
  return header;
}

template <typename Header>
Header require(std::span<const u8> frame, std::size_t at, const char* what) {
  if (at != frame_layout::absent) {
    if (const auto header = read<Header>(frame, at)) return *header;
  }
  throw std::logic_error(std::string("the frame has no ") + what + " header");
}

std::string hex16(u16 value) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%04X", value);
  return text;
}

void find_transport(std::span<const u8> frame, std::size_t at, frame_layout& layout) {
  std::size_t length = 0;
  if (layout.protocol == wire::ip_protocol::tcp) {
    const auto tcp = read<wire::tcphdr>(frame, at);
    if (!tcp) return;
    length = static_cast<std::size_t>(tcp->data_offset >> 4) * 4;
  } else if (layout.protocol == wire::ip_protocol::udp) {
    if (!read<wire::udphdr>(frame, at)) return;
    length = sizeof(wire::udphdr);
  } else if (layout.protocol == wire::ip_protocol::icmp) {
    if (!read<wire::icmphdr>(frame, at)) return;
    length = sizeof(wire::icmphdr);
  } else {
    return;
  }
  layout.transport = at;
  if (at + length <= layout.ip_end) layout.payload = at + length;
}

void find_ip(std::span<const u8> frame, std::size_t at, frame_layout& layout) {
  if (at >= frame.size()) return;
  if (frame[at] >> 4 == 4) {
    const auto ip = read<wire::iphdr>(frame, at);
    if (!ip) return;
    layout.ipv4 = at;
    layout.protocol = ip->protocol;
    layout.ip_end = std::min<std::size_t>(frame.size(), at + ip->tot_len.host());
    const bool later = (ip->frag_off.host() & wire::ip_frag::offset_mask) != 0;
    if (!later) find_transport(frame, at + ip->header_length(), layout);
  } else if (frame[at] >> 4 == 6) {
    const auto ip = read<wire::ipv6hdr>(frame, at);
    if (!ip) return;
    layout.ipv6 = at;
    layout.protocol = ip->nexthdr;
    layout.ip_end =
        std::min<std::size_t>(frame.size(), at + wire::ipv6_length + ip->payload_len.host());
    find_transport(frame, at + wire::ipv6_length, layout);
  }
}

/// Collects complaints.
class complaints {
 public:
  void add(const std::string& what) { text_ += (text_.empty() ? "" : "; ") + what; }
  void wrong(const std::string& what, u16 is, u16 should_be) {
    if (is != should_be) add(what + " is " + hex16(is) + ", should be " + hex16(should_be));
  }
  [[nodiscard]] std::string text() const { return text_; }

 private:
  std::string text_;
};

u16 expected_checksum(bytes piece, std::size_t field, naive_sum start) {
  piece[field] = 0;
  piece[field + 1] = 0;
  return start.add(piece).checksum();
}

void check_transport(std::span<const u8> frame, const frame_layout& layout, complaints& found) {
  if (layout.transport == frame_layout::absent || layout.transport > layout.ip_end) return;
  const bytes segment(frame.begin() + static_cast<std::ptrdiff_t>(layout.transport),
                      frame.begin() + static_cast<std::ptrdiff_t>(layout.ip_end));
  const bool v4 = layout.ipv4 != frame_layout::absent;
  const auto addresses = v4 ? frame.subspan(layout.ipv4 + offsetof(wire::iphdr, saddr), 8)
                            : frame.subspan(layout.ipv6 + offsetof(wire::ipv6hdr, saddr), 32);
  const naive_sum pseudo =
      pseudo_header(addresses, layout.protocol, static_cast<u32>(segment.size()));
  if (layout.protocol == wire::ip_protocol::tcp) {
    const auto tcp = read<wire::tcphdr>(segment, 0);
    if (!tcp) return found.add("TCP header cut short");
    found.wrong("TCP checksum", tcp->check.host(),
                expected_checksum(segment, offsetof(wire::tcphdr, check), pseudo));
  } else if (layout.protocol == wire::ip_protocol::udp) {
    const auto udp = read<wire::udphdr>(segment, 0);
    if (!udp) return found.add("UDP header cut short");
    found.wrong("UDP length", udp->len.host(), static_cast<u16>(segment.size()));
    if (udp->check.host() == 0) return;
    const u16 sum = expected_checksum(segment, offsetof(wire::udphdr, check), pseudo);
    found.wrong("UDP checksum", udp->check.host(), sum == 0 ? 0xFFFF : sum);
  } else if (v4 && layout.protocol == wire::ip_protocol::icmp) {
    const auto icmp = read<wire::icmphdr>(segment, 0);
    if (!icmp) return found.add("ICMP header cut short");
    found.wrong("ICMP checksum", icmp->checksum.host(),
                expected_checksum(segment, offsetof(wire::icmphdr, checksum), {}));
  }
}

/// False when nothing behind the header can be judged.
bool check_ipv4(std::span<const u8> frame, const frame_layout& layout, complaints& found) {
  const auto ip = *read<wire::iphdr>(frame, layout.ipv4);
  const std::size_t there = frame.size() - layout.ipv4;
  if (ip.header_length() < wire::ipv4_min_length || ip.header_length() > there) {
    found.add("IPv4 header length is " + std::to_string(ip.header_length()));
    return false;
  }
  const auto header = frame.subspan(layout.ipv4, ip.header_length());
  found.wrong(
      "IPv4 checksum", ip.check.host(),
      expected_checksum(bytes(header.begin(), header.end()), offsetof(wire::iphdr, check), {}));
  if (ip.tot_len.host() > there || ip.tot_len.host() < ip.header_length()) {
    found.add("IPv4 length is " + std::to_string(ip.tot_len.host()) + ", there are " +
              std::to_string(there) + " bytes");
    return false;
  }
  constexpr u16 fragment_bits = wire::ip_frag::more_fragments | wire::ip_frag::offset_mask;
  return (ip.frag_off.host() & fragment_bits) == 0;
}

std::string tcp_flags_text(u8 flags) {
  constexpr char letters[] = "FSRPAUEC";
  std::string text = "[";
  for (unsigned bit = 0; bit < 8; ++bit) {
    if ((flags >> bit & 1) != 0) text += letters[bit];
  }
  return text + "]";
}

std::string describe_transport(std::span<const u8> frame, const frame_layout& layout) {
  if (layout.transport == frame_layout::absent) {
    return "protocol " + std::to_string(layout.protocol);
  }
  if (layout.protocol == wire::ip_protocol::tcp) {
    const auto tcp = *read<wire::tcphdr>(frame, layout.transport);
    return "tcp " + std::to_string(tcp.source.host()) + "→" + std::to_string(tcp.dest.host()) +
           " " + tcp_flags_text(tcp.flags) + " seq " + std::to_string(tcp.seq.host()) + " ack " +
           std::to_string(tcp.ack_seq.host());
  }
  if (layout.protocol == wire::ip_protocol::udp) {
    const auto udp = *read<wire::udphdr>(frame, layout.transport);
    return "udp " + std::to_string(udp.source.host()) + "→" + std::to_string(udp.dest.host());
  }
  const auto icmp = *read<wire::icmphdr>(frame, layout.transport);
  return "icmp " + std::to_string(icmp.type) + "/" + std::to_string(icmp.code) + " id " +
         std::to_string(icmp.id.host()) + " seq " + std::to_string(icmp.sequence.host());
}

std::string describe_ip(std::span<const u8> frame, const frame_layout& layout) {
  if (layout.ipv6 != frame_layout::absent) {
    const auto ip = *read<wire::ipv6hdr>(frame, layout.ipv6);
    return "ipv6 " + ip6_text(ip.saddr) + "→" + ip6_text(ip.daddr) + " hop limit " +
           std::to_string(ip.hop_limit) + " " + describe_transport(frame, layout);
  }
  const auto ip = *read<wire::iphdr>(frame, layout.ipv4);
  std::string text = "ipv4 " + ip4_text(ip.saddr.raw()) + "→" + ip4_text(ip.daddr.raw()) + " ttl " +
                     std::to_string(ip.ttl) + " id " + std::to_string(ip.id.host()) + " ";
  const u16 frag = ip.frag_off.host();
  if ((frag & wire::ip_frag::dont_fragment) != 0) text += "DF ";
  if ((frag & (wire::ip_frag::more_fragments | wire::ip_frag::offset_mask)) != 0) {
    text += "fragment " + std::to_string((frag & wire::ip_frag::offset_mask) * 8) +
            ((frag & wire::ip_frag::more_fragments) != 0 ? "+ " : " ");
  }
  return text + describe_transport(frame, layout);
}

std::string describe_arp(std::span<const u8> frame, const frame_layout& layout) {
  const auto arp = *read<wire::arphdr>(frame, layout.arp);
  return "arp " + std::to_string(arp.ar_op.host()) + " " + ip4_text(arp.ar_sip.raw()) + " is at " +
         mac_text(arp.ar_sha) + ", target " + ip4_text(arp.ar_tip.raw());
}

}  // namespace

frame_layout layout_of(std::span<const u8> frame, link kind) {
  frame_layout layout;
  layout.ip_end = frame.size();
  if (kind == link::ip) {
    find_ip(frame, 0, layout);
    return layout;
  }
  const auto eth = read<wire::ethhdr>(frame, 0);
  if (!eth) return layout;
  layout.ethertype = eth->h_proto.host();
  std::size_t at = wire::ethernet_length;
  if (layout.ethertype == wire::ethertype::vlan) {
    const auto tagged = read<wire::vlan_ethhdr>(frame, 0);
    if (!tagged) return layout;
    layout.tci = tagged->h_vlan_TCI.host();
    layout.ethertype = tagged->h_vlan_encapsulated_proto.host();
    at = wire::tagged_ethernet_length;
  }
  if (layout.ethertype == wire::ethertype::pppoe_session) {
    const auto session = read<wire::pppoe_hdr>(frame, at);
    if (!session) return layout;
    layout.pppoe_session = session->sid.host();
    find_ip(frame, at + wire::pppoe_length, layout);
  } else if (layout.ethertype == wire::ethertype::arp) {
    if (read<wire::arphdr>(frame, at)) layout.arp = at;
  } else if (layout.ethertype == wire::ethertype::ipv4 ||
             layout.ethertype == wire::ethertype::ipv6) {
    find_ip(frame, at, layout);
  }
  return layout;
}

std::string faults_of(std::span<const u8> frame, link kind) {
  const frame_layout layout = layout_of(frame, kind);
  complaints found;
  if (layout.ipv4 != frame_layout::absent) {
    if (layout.pppoe_session) {
      const auto session = *read<wire::pppoe_hdr>(frame, layout.ipv4 - wire::pppoe_length);
      constexpr std::size_t protocol_field = 2;
      found.wrong("PPPoE length", session.length.host(),
                  static_cast<u16>(layout.ip_end - layout.ipv4 + protocol_field));
    }
    if (check_ipv4(frame, layout, found)) check_transport(frame, layout, found);
  } else if (layout.ipv6 != frame_layout::absent) {
    const auto ip = *read<wire::ipv6hdr>(frame, layout.ipv6);
    if (ip.payload_len.host() > frame.size() - layout.ipv6 - wire::ipv6_length) {
      found.add("IPv6 length is " + std::to_string(ip.payload_len.host()));
    } else {
      check_transport(frame, layout, found);
    }
  } else if (layout.arp == frame_layout::absent) {
    found.add("no complete header of a known type");
  }
  return found.text();
}

std::string describe(std::span<const u8> frame, link kind) {
  const frame_layout layout = layout_of(frame, kind);
  std::string text;
  if (kind == link::ethernet) {
    const auto eth = read<wire::ethhdr>(frame, 0);
    if (!eth) return "cut short: " + std::to_string(frame.size()) + " bytes";
    text = mac_text(eth->h_source) + "→" + mac_text(eth->h_dest) + " ";
  }
  if (layout.tci) {
    text += "vlan " + std::to_string(*layout.tci & wire::vlan_vid_mask) + " priority " +
            std::to_string(*layout.tci >> wire::vlan_priority_shift) + " ";
  }
  if (layout.pppoe_session) text += "pppoe " + hex16(*layout.pppoe_session) + " ";
  if (layout.arp != frame_layout::absent) {
    text += describe_arp(frame, layout);
  } else if (layout.ipv4 != frame_layout::absent || layout.ipv6 != frame_layout::absent) {
    text += describe_ip(frame, layout);
  } else {
    text += "type " + hex16(layout.ethertype);
  }
  text += ", " + std::to_string(frame.size()) + " bytes";
  const std::string faults = faults_of(frame, kind);
  return faults.empty() ? text : text + " (" + faults + ")";
}

std::string hex_dump(std::span<const u8> frame) {
  constexpr std::size_t row = 16;
  std::string text;
  char piece[16];
  for (std::size_t i = 0; i < frame.size(); ++i) {
    if (i % row == 0) {
      std::snprintf(piece, sizeof piece, "%s  %04x:", i == 0 ? "" : "\n", static_cast<unsigned>(i));
      text += piece;
    }
    std::snprintf(piece, sizeof piece, " %02x", frame[i]);
    text += piece;
  }
  return text + "\n";
}

wire::ethhdr eth_of(std::span<const u8> frame) {
  return require<wire::ethhdr>(frame, 0, "Ethernet");
}

wire::iphdr ipv4_of(std::span<const u8> frame, link kind) {
  return require<wire::iphdr>(frame, layout_of(frame, kind).ipv4, "IPv4");
}

namespace {

template <typename Header>
Header transport_of(std::span<const u8> frame, link kind, u8 protocol, const char* what) {
  const frame_layout layout = layout_of(frame, kind);
  const std::size_t at = layout.protocol == protocol ? layout.transport : frame_layout::absent;
  return require<Header>(frame, at, what);
}

}  // namespace

wire::tcphdr tcp_of(std::span<const u8> frame, link kind) {
  return transport_of<wire::tcphdr>(frame, kind, wire::ip_protocol::tcp, "TCP");
}

wire::udphdr udp_of(std::span<const u8> frame, link kind) {
  return transport_of<wire::udphdr>(frame, kind, wire::ip_protocol::udp, "UDP");
}

wire::icmphdr icmp_of(std::span<const u8> frame, link kind) {
  return transport_of<wire::icmphdr>(frame, kind, wire::ip_protocol::icmp, "ICMP");
}

wire::arphdr arp_of(std::span<const u8> frame) {
  return require<wire::arphdr>(frame, layout_of(frame).arp, "ARP");
}

bytes payload_of(std::span<const u8> frame, link kind) {
  const frame_layout layout = layout_of(frame, kind);
  if (layout.payload == frame_layout::absent) throw std::logic_error("the frame has no payload");
  return {frame.begin() + static_cast<std::ptrdiff_t>(layout.payload),
          frame.begin() + static_cast<std::ptrdiff_t>(layout.ip_end)};
}

}  // namespace tarvelo::test
