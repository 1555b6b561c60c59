// SPDX-License-Identifier: GPL-2.0-only
//
// Two tests by which the stack's PPTP code keeps PPP frames off the fast path that are not plain
// packets.
#pragma once

#include "kernel/types.h"

namespace tarvelo {

/// Published operations, see vok_handle; any context. `p` is at the first byte of a PPP frame, of
/// which four can be read. 1 for a compressed datagram, for a control protocol; else 0.
int _vok_pptp_compress_packet(const u8* p);
int _vok_pptp_control_packet(const u8* p);

}  // namespace tarvelo
