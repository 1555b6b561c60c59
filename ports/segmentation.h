// SPDX-License-Identifier: GPL-2.0-only
//
// Cutting a super-frame (many TCP segments or UDP datagrams under one set of headers) into the
// frames that would have been on the wire.
//
// Each segment gets a copy of all headers, with what differs put right: IP lengths, the IPv4
// identification (counted up), TCP sequence numbers and flags (FIN and PSH only on the last
// segment, CWR only on the first), UDP lengths, PPPoE lengths and all checksums, which are made
// from scratch. Headers may be preceded by up to two tags and a PPPoE session header.
//
// A plan is made once for a super-frame, then each segment is written into a buffer of its own, so
// nothing is allocated here. Pure, any context.
#pragma once

#include <optional>
#include <span>

#include "kernel/types.h"
#include "ports/offload.h"

namespace tarvelo::ports {

/// What a frame of a device begins with.
enum class link_layer : u8 {
  ethernet,
  raw_ip,
};

class segmentation_plan {
 public:
  /// Looks at a super-frame; `mtu` is the interface's, in bytes above the link-layer header. TCP
  /// segments that would exceed it are made smaller. Nothing when the frame is not what its offload
  /// header says, or when a datagram would not fit the MTU.
  static std::optional<segmentation_plan> make(std::span<const u8> frame,
                                               const offload_header& offload, link_layer link,
                                               u32 mtu) noexcept;

  [[nodiscard]] u32 count() const noexcept;
  /// Bytes of one frame with its headers; `index` below count().
  [[nodiscard]] u32 length(u32 index) const noexcept;
  /// Writes one frame; `to` has length(index) bytes. `frame` is the one that the plan was made of.
  void write(std::span<const u8> frame, u32 index, std::span<u8> to) const noexcept;

 private:
  static constexpr u32 no_header = 0xFFFFFFFF;

  [[nodiscard]] bool find_headers(std::span<const u8> frame, link_layer link) noexcept;
  [[nodiscard]] u32 payload_at(u32 index) const noexcept { return index * segment_size_; }
  [[nodiscard]] u32 payload_of(u32 index) const noexcept;
  void write_pppoe(std::span<u8> to) const noexcept;
  void write_ip(u32 index, std::span<u8> to) const noexcept;
  void write_tcp(u32 index, std::span<u8> to) const noexcept;
  void write_udp(std::span<u8> to) const noexcept;
  [[nodiscard]] u16 transport_checksum(std::span<u8> to) const noexcept;

  u32 pppoe_at_ = no_header;  ///< offsets in the frame
  u32 ip_at_ = 0;
  u32 transport_at_ = 0;
  u32 payload_start_ = 0;
  u32 payload_length_ = 0;
  u32 segment_size_ = 0;  ///< payload bytes of all segments but the last
  bool is_ipv6_ = false;
  u8 protocol_ = 0;
};

}  // namespace tarvelo::ports
