// SPDX-License-Identifier: GPL-2.0-only
//
// What the kernel below leaves undone in a frame that it hands to a packet socket, because it
// counts on a network card that is not there: a checksum that is only begun, a tag kept beside the
// frame, and many segments in one frame. The router wants frames as they would be on the wire.
//
// The layout is that of the header that precedes each frame of a packet socket with
// PACKET_VNET_HDR (virtio 1.0, 5.1.6), in host byte order. It is written out here because the
// system's own header is not C++.
//
// Pure functions, any context.
#pragma once

#include <span>

#include "kernel/types.h"

namespace tarvelo::ports {

struct offload_header {
  u8 flags;
  u8 gso_type;
  u16 hdr_len;
  u16 gso_size;     ///< payload bytes of a segment
  u16 csum_start;   ///< offset from the start of the frame
  u16 csum_offset;  ///< of the checksum field, from csum_start
};
static_assert(sizeof(offload_header) == 10);

namespace offload_flag {
inline constexpr u8 needs_csum = 0x01;
}

namespace offload_gso {
inline constexpr u8 none = 0;
inline constexpr u8 tcp_ipv4 = 1;
inline constexpr u8 tcp_ipv6 = 4;
inline constexpr u8 udp_l4 = 5;
inline constexpr u8 ecn = 0x80;  ///< on top of a type
}  // namespace offload_gso

/// The segment type without the ECN mark.
[[nodiscard]] constexpr u8 gso_type_of(const offload_header& offload) noexcept {
  return offload.gso_type & static_cast<u8>(~offload_gso::ecn);
}

/// The offload header of a frame that has been given its tag back: offsets move with the bytes.
[[nodiscard]] offload_header after_tag(offload_header offload) noexcept;

/// Completes a checksum that was only begun: its field holds the sum of the pseudo header. False
/// when the field does not lie in the frame, which is then as before.
[[nodiscard]] bool complete_checksum(std::span<u8> frame, const offload_header& offload) noexcept;

}  // namespace tarvelo::ports
