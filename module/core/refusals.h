// SPDX-License-Identifier: GPL-2.0-only
//
// Operations whose subject this module does not accelerate yet: IPv6 connections. The kernel calls
// through the handle without looking whether a slot is filled, so each of them is there and gives
// the answer that means "not mine": nothing added.
#pragma once

#include "tarvelo/handle.h"

namespace tarvelo {

void __ipv6_conntrack_ipc_add(vok_handle* ci, sk_buff* skb);

}  // namespace tarvelo
