// SPDX-License-Identifier: GPL-2.0-only
#include "ports/offload.h"

#include <cstring>

#include "kernel/wire/ethernet.h"
#include "kernel/wire/transport.h"
#include "ports/checksum.h"

namespace tarvelo::ports {

offload_header after_tag(offload_header offload) noexcept {
  if ((offload.flags & offload_flag::needs_csum) != 0) {
    offload.csum_start = static_cast<u16>(offload.csum_start + wire::vlan_tag_length);
  }
  return offload;
}

bool complete_checksum(std::span<u8> frame, const offload_header& offload) noexcept {
  const std::size_t field = std::size_t{offload.csum_start} + offload.csum_offset;
  if (field + sizeof(wire::be16) > frame.size()) return false;
  u16 checksum = static_cast<u16>(~ones_complement_sum(frame.subspan(offload.csum_start)));
  // A UDP checksum of 0 would say that there is none.
  const bool is_udp = offload.csum_offset == offsetof(wire::udphdr, check);
  if (is_udp && checksum == 0) checksum = 0xFFFF;
  const wire::be16 stored{checksum};
  std::memcpy(frame.data() + field, &stored, sizeof stored);
  return true;
}

}  // namespace tarvelo::ports
