// SPDX-License-Identifier: GPL-2.0-only
//
// What becomes of a frame. Every step of the packet path returns one of these; anything but
// `forward` ends the path there, and the frame is freed or handed back at one place.
//
// Whoever wonders why a frame is not accelerated finds the answer in the value that
// forward_frame() returns.
#pragma once

#include "kernel/types.h"

namespace tarvelo {

enum class [[nodiscard]] fate : u8{
    forward,  ///< go on; at the end: the frame has been sent
    drop,     ///< free the buffer, it is dealt with

    // All others: the frame goes back to the kernel as it came, because ...
    no_input,              ///< there is no handle or no buffer
    truncated,             ///< a header is not all there
    unknown_type,          ///< the frame is neither IP nor PPPoE
    unknown_ppp_protocol,  ///< the PPPoE session carries something else than IP
    version_mismatch,      ///< frame type and IP version do not agree
    no_headroom,           ///< what has to be put in front does not fit
    group_destination,     ///< multicast or broadcast MAC address
    hook_diverted,         ///< a hook wants the kernel to have it
    hook_error,            ///< a hook returned no verdict (logged)
    hook_cut_frame,        ///< a hook has left less of the frame than was looked at
    portal_closed,         ///< the sender has no portal mark while marks are asked for
    unknown_tag_mode,      ///< the bridge entry does not say how to treat the tag
    same_device,           ///< the bridged frame would leave where it came in
    too_long,              ///< it exceeds the output device's MTU
    link_local,            ///< an IPv6 address that means something on its link only
    bad_header,            ///< IPv4 header length or total length is impossible
    fragment,              ///< part of a larger datagram that is not known or may not go this way
    fragments_full,        ///< no room to record a first fragment
    other_protocol,        ///< neither TCP nor UDP nor GRE; IPv6: not directly behind the header
    tunnelled,             ///< GRE that is no PPTP data packet, or a tunnel with no IPv4 inside
    group_address,         ///< multicast IP address
    tcp_syn,               ///< opens a connection
    already_tracked,       ///< the buffer carries a connection
    no_entry,              ///< not in the connection table
    connection_gone,       ///< the connection is not confirmed yet, or ending
    no_record,             ///< the connection has no extension record
    double_nat,            ///< both ends are translated
    not_ripe,              ///< too few packets of the connection have been seen
    tcp_ending,            ///< a FIN or RST, or a segment after one
    encapsulation,         ///< frame and entry do not agree on the encapsulation
    other_session,         ///< PPPoE session, L2TP session or PPTP call is not the entry's
    no_session,            ///< the L2TP session is missing, ending or unsound
};

[[nodiscard]] constexpr bool is_handed_back(fate f) {
  return f > fate::drop;
}

}  // namespace tarvelo
