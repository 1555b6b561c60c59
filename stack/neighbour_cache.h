// SPDX-License-Identifier: GPL-2.0-only
//
// The life of the kernel's neighbour entries of both families: resolving, confirming, expiring, and
// the packets that wait meanwhile.
//
//   (none) --packet--> INCOMPLETE --answer--> REACHABLE --30 s--> STALE --packet--> DELAY
//   INCOMPLETE --3 questions, 1 s apart--> FAILED             STALE --60 s--> PROBE
//   DELAY --5 s--> PROBE (asks the known address) --answer--> REACHABLE, or --3 times--> FAILED
//
// Two things differ from a host. The fast path sends without touching the entry, so that an unused
// entry cannot be told from one that carries most of the traffic: it is probed rather than left to
// go stale for ever, and goes when it does not answer. And the fast path keeps copies of hardware
// addresses: when one changes or is lost, the tracker takes the device's connections off the fast
// path.
//
// Entries in state NUD_PERMANENT and NUD_NOARP are configured and never change.
//
// How a neighbour is asked is the business of ARP and of neighbour discovery; an entry's table says
// which of the two.
//
// An entry's timer holds a reference on it while it is pending. All under the stack's lock, which
// also guards the entry's queue. Addresses are in network byte order.
#pragma once

#include "kernel/neighbour.h"
#include "kernel/skbuff.h"
#include "stack/config.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// How a hardware address was learnt, from the strongest evidence to the weakest.
enum class neighbour_evidence : u8 {
  answer,        ///< a reply to the router: confirms what was asked, else an announcement
  hint,          ///< the same from one who may not know better: a known address stays
  question,      ///< a request for one of the router's addresses: its sender is worth an entry
  announcement,  ///< anything else: corrects an entry that is there
};

/// Takes a packet, `data` at its IP header, for an Ethernet device `skb->dev`: sends it to the
/// neighbour, or lets it wait until the neighbour's address is known.
[[nodiscard]] receive_verdict neighbour_output(sk_buff* skb, const ip_address& next_hop);

/// Notes that `address` on `dev` has the hardware address `mac`; null: the one that is known.
void neighbour_learn(net_device* dev, const ip_address& address, const u8* mac,
                     neighbour_evidence evidence);

/// Configured entries. False without memory or room.
[[nodiscard]] bool neighbour_add_static(net_device* dev, const ip_address& address,
                                        const u8 mac[wire::mac_length]);
/// The entries for address 0, one of each family, that stand for the other end of a point-to-point
/// device.
[[nodiscard]] bool neighbour_add_point_to_point(net_device* dev);

/// Drops what was learnt on a device, with what waits for it; configured entries stay.
void neighbour_forget_learnt(net_device* dev);
/// Drops all entries of a device.
void neighbour_forget_all(net_device* dev);

}  // namespace tarvelo::stack
