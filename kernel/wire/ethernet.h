// SPDX-License-Identifier: GPL-2.0-only
//
// Ethernet II (IEEE 802.3), the 802.1Q tag, ARP for IPv4 over Ethernet (RFC 826) and the PPPoE
// session header (RFC 2516).
#pragma once

#include "kernel/wire/endian.h"

namespace wire {

inline constexpr u32 mac_length = 6;
inline constexpr u32 ethernet_length = 14;
inline constexpr u32 vlan_tag_length = 4;
inline constexpr u32 tagged_ethernet_length = ethernet_length + vlan_tag_length;
inline constexpr u32 pppoe_length = 8;  ///< with the PPP protocol field

namespace ethertype {
inline constexpr u16 ipv4 = 0x0800;
inline constexpr u16 arp = 0x0806;
inline constexpr u16 vlan = 0x8100;
inline constexpr u16 ipv6 = 0x86DD;
inline constexpr u16 pppoe_session = 0x8864;
}  // namespace ethertype

inline constexpr u8 mac_group_bit = 0x01;  ///< in the first byte: multicast or broadcast
inline constexpr u16 vlan_vid_mask = 0x0FFF;
inline constexpr unsigned vlan_priority_shift = 13;

struct ethhdr {
  u8 h_dest[mac_length];
  u8 h_source[mac_length];
  be16 h_proto;
};
static_assert(sizeof(ethhdr) == ethernet_length && alignof(ethhdr) == 1);

struct vlan_ethhdr {
  u8 h_dest[mac_length];
  u8 h_source[mac_length];
  be16 h_vlan_proto;
  be16 h_vlan_TCI;
  be16 h_vlan_encapsulated_proto;
};
static_assert(sizeof(vlan_ethhdr) == tagged_ethernet_length && alignof(vlan_ethhdr) == 1);

struct pppoe_hdr {
  u8 version_type;  ///< 0x11
  u8 code;          ///< 0 in a session frame
  be16 sid;
  be16 length;    ///< of what follows the first six bytes
  be16 protocol;  ///< PPP protocol
};
static_assert(sizeof(pppoe_hdr) == pppoe_length && alignof(pppoe_hdr) == 1);

namespace ppp_protocol {
inline constexpr u16 ipv4 = 0x0021;
inline constexpr u16 ipv6 = 0x0057;
}  // namespace ppp_protocol

struct arphdr {
  be16 ar_hrd;  ///< 1: Ethernet
  be16 ar_pro;  ///< 0x0800
  u8 ar_hln;    ///< 6
  u8 ar_pln;    ///< 4
  be16 ar_op;
  u8 ar_sha[mac_length];
  be32 ar_sip;
  u8 ar_tha[mac_length];
  be32 ar_tip;
};
static_assert(sizeof(arphdr) == 28 && alignof(arphdr) == 1);

namespace arp_op {
inline constexpr u16 request = 1;
inline constexpr u16 reply = 2;
}  // namespace arp_op

}  // namespace wire
