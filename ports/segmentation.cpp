// SPDX-License-Identifier: GPL-2.0-only
#include "ports/segmentation.h"

#include <algorithm>
#include <cstring>

#include "kernel/wire/ethernet.h"
#include "kernel/wire/ip.h"
#include "kernel/wire/transport.h"
#include "ports/checksum.h"

namespace tarvelo::ports {

namespace {

constexpr u16 ethertype_qinq = 0x88A8;
constexpr u32 max_tags = 2;
constexpr u32 pppoe_length_base = 6;  ///< the PPPoE length counts what follows these bytes
constexpr u8 tcp_cwr = 0x80;

template <typename Header>
Header* header_at(std::span<u8> frame, u32 offset) noexcept {
  return reinterpret_cast<Header*>(frame.data() + offset);
}

template <typename Header>
const Header* header_at(std::span<const u8> frame, u32 offset) noexcept {
  return reinterpret_cast<const Header*>(frame.data() + offset);
}

bool holds(std::span<const u8> frame, u32 offset, u32 length) noexcept {
  return frame.size() >= std::size_t{offset} + length;
}

u16 read_be16(std::span<const u8> frame, u32 offset) noexcept {
  return header_at<wire::be16>(frame, offset)->host();
}

bool is_tag(u16 ethertype) noexcept {
  return ethertype == wire::ethertype::vlan || ethertype == ethertype_qinq;
}

}  // namespace

std::optional<segmentation_plan> segmentation_plan::make(std::span<const u8> frame,
                                                         const offload_header& offload,
                                                         link_layer link, u32 mtu) noexcept {
  segmentation_plan plan;
  if (!plan.find_headers(frame, link)) return std::nullopt;
  const u8 type = gso_type_of(offload);
  const bool is_tcp = plan.protocol_ == wire::ip_protocol::tcp;
  const bool type_fits =
      is_tcp ? type == (plan.is_ipv6_ ? offload_gso::tcp_ipv6 : offload_gso::tcp_ipv4)
             : type == offload_gso::udp_l4;
  if (!type_fits || offload.gso_size == 0) return std::nullopt;

  plan.payload_length_ = static_cast<u32>(frame.size()) - plan.payload_start_;
  const u32 counted_from = plan.pppoe_at_ != no_header ? plan.pppoe_at_ : plan.ip_at_;
  const u32 header_bytes = plan.payload_start_ - counted_from;
  if (header_bytes >= mtu) return std::nullopt;
  const u32 room = mtu - header_bytes;
  if (!is_tcp && std::min<u32>(offload.gso_size, plan.payload_length_) > room) return std::nullopt;
  plan.segment_size_ = std::min<u32>(offload.gso_size, room);
  return plan;
}

bool segmentation_plan::find_headers(std::span<const u8> frame, link_layer link) noexcept {
  u32 at = 0;
  if (link == link_layer::ethernet) {
    if (!holds(frame, 0, wire::ethernet_length)) return false;
    u16 type = read_be16(frame, wire::ethernet_length - sizeof(wire::be16));
    at = wire::ethernet_length;
    for (u32 tags = 0; is_tag(type); ++tags) {
      if (tags == max_tags || !holds(frame, at, wire::vlan_tag_length)) return false;
      type = read_be16(frame, at + sizeof(wire::be16));
      at += wire::vlan_tag_length;
    }
    if (type == wire::ethertype::pppoe_session) {
      if (!holds(frame, at, wire::pppoe_length)) return false;
      pppoe_at_ = at;
      at += wire::pppoe_length;
    } else if (type != wire::ethertype::ipv4 && type != wire::ethertype::ipv6) {
      return false;
    }
  }
  ip_at_ = at;
  if (!holds(frame, at, wire::ipv4_min_length)) return false;
  const auto* ip4 = header_at<wire::iphdr>(frame, at);
  is_ipv6_ = ip4->version() == 6;
  if (is_ipv6_) {
    if (!holds(frame, at, wire::ipv6_length)) return false;
    protocol_ = header_at<wire::ipv6hdr>(frame, at)->nexthdr;
    transport_at_ = at + wire::ipv6_length;
  } else {
    if (ip4->version() != 4 || ip4->header_length() < wire::ipv4_min_length) return false;
    if ((ip4->frag_off.host() & (wire::ip_frag::more_fragments | wire::ip_frag::offset_mask)) != 0)
      return false;
    protocol_ = ip4->protocol;
    transport_at_ = at + ip4->header_length();
  }
  if (protocol_ == wire::ip_protocol::tcp) {
    if (!holds(frame, transport_at_, sizeof(wire::tcphdr))) return false;
    const u32 length = (header_at<wire::tcphdr>(frame, transport_at_)->data_offset >> 4) * 4U;
    if (length < sizeof(wire::tcphdr)) return false;
    payload_start_ = transport_at_ + length;
  } else if (protocol_ == wire::ip_protocol::udp) {
    payload_start_ = transport_at_ + static_cast<u32>(sizeof(wire::udphdr));
  } else {
    return false;
  }
  return frame.size() > payload_start_;
}

u32 segmentation_plan::count() const noexcept {
  return (payload_length_ + segment_size_ - 1) / segment_size_;
}

u32 segmentation_plan::payload_of(u32 index) const noexcept {
  return std::min(segment_size_, payload_length_ - payload_at(index));
}

u32 segmentation_plan::length(u32 index) const noexcept {
  return payload_start_ + payload_of(index);
}

void segmentation_plan::write(std::span<const u8> frame, u32 index,
                              std::span<u8> to) const noexcept {
  std::memcpy(to.data(), frame.data(), payload_start_);
  std::memcpy(to.data() + payload_start_, frame.data() + payload_start_ + payload_at(index),
              payload_of(index));
  if (pppoe_at_ != no_header) write_pppoe(to);
  write_ip(index, to);
  if (protocol_ == wire::ip_protocol::tcp) {
    write_tcp(index, to);
  } else {
    write_udp(to);
  }
}

void segmentation_plan::write_pppoe(std::span<u8> to) const noexcept {
  auto* pppoe = header_at<wire::pppoe_hdr>(to, pppoe_at_);
  pppoe->length = wire::be16{static_cast<u16>(to.size() - pppoe_at_ - pppoe_length_base)};
}

void segmentation_plan::write_ip(u32 index, std::span<u8> to) const noexcept {
  if (is_ipv6_) {
    auto* ip6 = header_at<wire::ipv6hdr>(to, ip_at_);
    ip6->payload_len = wire::be16{static_cast<u16>(to.size() - ip_at_ - wire::ipv6_length)};
    return;
  }
  auto* ip4 = header_at<wire::iphdr>(to, ip_at_);
  ip4->tot_len = wire::be16{static_cast<u16>(to.size() - ip_at_)};
  ip4->id = wire::be16{static_cast<u16>(ip4->id.host() + index)};
  ip4->check = wire::be16{0};
  const auto header = to.subspan(ip_at_, transport_at_ - ip_at_);
  ip4->check = wire::be16{static_cast<u16>(~ones_complement_sum(header))};
}

void segmentation_plan::write_tcp(u32 index, std::span<u8> to) const noexcept {
  auto* tcp = header_at<wire::tcphdr>(to, transport_at_);
  tcp->seq = wire::be32{tcp->seq.host() + payload_at(index)};
  if (index != 0) tcp->flags &= static_cast<u8>(~tcp_cwr);
  if (index + 1 != count()) {
    tcp->flags &= static_cast<u8>(~(wire::tcp_flag::fin | wire::tcp_flag::psh));
  }
  tcp->check = wire::be16{0};
  tcp->check = wire::be16{transport_checksum(to)};
}

void segmentation_plan::write_udp(std::span<u8> to) const noexcept {
  auto* udp = header_at<wire::udphdr>(to, transport_at_);
  udp->len = wire::be16{static_cast<u16>(to.size() - transport_at_)};
  udp->check = wire::be16{0};
  const u16 checksum = transport_checksum(to);
  udp->check = wire::be16{checksum == 0 ? u16{0xFFFF} : checksum};
}

u16 segmentation_plan::transport_checksum(std::span<u8> to) const noexcept {
  const auto addresses =
      is_ipv6_ ? to.subspan(ip_at_ + offsetof(wire::ipv6hdr, saddr), 2 * sizeof(wire::in6_addr))
               : to.subspan(ip_at_ + offsetof(wire::iphdr, saddr), 2 * sizeof(wire::be32));
  const auto covered = to.subspan(transport_at_);
  const u16 sum = pseudo_header_sum(addresses, protocol_, static_cast<u32>(covered.size()));
  return static_cast<u16>(~ones_complement_sum(covered, sum));
}

}  // namespace tarvelo::ports
