// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel records that the binary interface points at, and the two checks that its layouts are
// held to. The records themselves belong to the kernel; nothing here looks inside them.
#pragma once

#include <cstddef>
#include <cstdint>

struct file_operations;
struct l2tp_session;
struct net_bridge_fdb_entry;
struct net_device;
struct nf_conn;
struct nf_conntrack_tuple;
struct proc_dir_entry;
struct sk_buff;

namespace tarvelo {

/// The layouts are an interface with a 32-bit ARM kernel. A hosted build with wider pointers keeps
/// the same fields in the same order, laid out naturally, and is not held to the numbers.
inline constexpr bool layout_is_binding = sizeof(void*) == 4;

/// True when `actual` is the offset or size that the interface documents, or when the build is not
/// held to it.
consteval bool binding_layout(std::size_t actual, std::size_t documented) {
  return !layout_is_binding || actual == documented;
}

}  // namespace tarvelo
