// SPDX-License-Identifier: GPL-2.0-only
//
// The hook registry: 11 families times 4 points, each a list of hook records in order of priority.
//
// Registration and removal run in process context under a mutex. Walks run in softirq context and
// take no lock: a record is published with its links already set, and a removed one keeps its
// forward link, so that a walker standing on it can go on. Softirq context being an RCU read side,
// whoever removed a record waits one grace period before it frees it.
//
// At the post-routing point hooks run under the connection table's lock.
#pragma once

#include "kernel/skbuff.h"
#include "module/forward/fate.h"
#include "module/forward/frame.h"
#include "tarvelo/handle.h"
#include "tarvelo/hook.h"

namespace tarvelo {

inline constexpr unsigned vok_hook_lists = vok_hook_families * vok_hook_points;
extern vok_hook_list vok_hooks[vok_hook_lists];

/// Every hook of a list is run.
inline constexpr s32 any_priority = -0x7FFFFFFF - 1;

/// Makes all lists empty; before anything is published.
void init_hook_registry();

/// Published operations, see vok_handle. `pf` and `hooknum` of the record are not checked.
int _vok_register_hook(vok_handle* ci, vok_hook_ops* ops);
int _vok_unregister_hook(vok_handle* ci, vok_hook_ops* ops);

/// Runs the hooks of a list whose priority is at least `threshold`; softirq context. Returns the
/// first verdict other than VOK_ACCEPT, or VOK_ACCEPT.
[[nodiscard]] unsigned _vok_iterate(vok_hook_list* head, sk_buff* skb, unsigned hooknum, u8 pf,
                                    s32 threshold);

[[nodiscard]] inline vok_hook_list* hook_list(family pf, vok_hook_point point) {
  return &vok_hooks[static_cast<unsigned>(pf) * vok_hook_points + point];
}

[[nodiscard]] inline bool has_hooks(vok_hook_list* head) {
  return read_once(head->next) != head;
}

/// The slow half of run_hooks().
fate run_listed_hooks(sk_buff* skb, const frame& f, vok_hook_point point);
/// Logs that the hooks of a point returned something that is no verdict.
void report_bad_verdict(vok_hook_point point);

/// Runs the hooks of a point of the forward path on a frame of the family `ip`, with the buffer's
/// header offsets set for them. Afterwards the data may be elsewhere and shorter.
inline fate run_hooks(sk_buff* skb, frame f, vok_hook_point point, family ip) {
  if (has_hooks(hook_list(ip, point))) [[unlikely]]
    return run_listed_hooks(skb, frame(f), point);
  return fate::forward;
}

}  // namespace tarvelo
