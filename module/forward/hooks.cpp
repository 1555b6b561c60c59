// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/hooks.h"

#include "kernel/mutex.h"
#include "kernel/printk.h"
#include "kernel/rcupdate.h"
#include "module/forward/transmit.h"

namespace tarvelo {

constinit vok_hook_list vok_hooks[vok_hook_lists] = {};

namespace {

constinit mutex registry_mutex = {0};

constexpr int mutex_failed_line = 3639;

/// A verdict with both low bits set is no verdict but a fault of the hook.
constexpr unsigned verdict_fault_mask = 3;

/// The back link of a removed record: an address that faults when it is followed.
vok_hook_list* const removed_link = reinterpret_cast<vok_hook_list*>(0x200);

[[nodiscard]] vok_hook_ops* record_of(vok_hook_list* link) {
  return reinterpret_cast<vok_hook_ops*>(link);
}

/// The link before which a record of that priority belongs: equals run in order of registration.
[[nodiscard]] vok_hook_list* place_for(vok_hook_list* head, s32 priority) {
  vok_hook_list* place = head->next;
  while (place != head && record_of(place)->priority <= priority)
    place = place->next;
  return place;
}

void publish_before(vok_hook_list* place, vok_hook_list* link) {
  link->next = place;
  link->prev = place->prev;
  rcu_assign_pointer(place->prev->next, link);
  place->prev = link;
}

void remove_leaving_next(vok_hook_list* link) {
  link->next->prev = link->prev;
  rcu_assign_pointer(link->prev->next, link->next);
  link->prev = removed_link;
}

}  // namespace

void init_hook_registry() {
  for (vok_hook_list& head : vok_hooks)
    head = {&head, &head};
}

int _vok_register_hook(vok_handle*, vok_hook_ops* ops) {
  const int error = mutex_lock_interruptible(&registry_mutex);
  if (error != 0) {
    printk("%s %d: get mutex failed, err = %d\n", "_vok_register_hook", mutex_failed_line, error);
    return error;
  }
  vok_hook_list* head = &vok_hooks[ops->pf * vok_hook_points + ops->hooknum];
  publish_before(place_for(head, ops->priority), &ops->list);
  mutex_unlock(&registry_mutex);
  return 0;
}

int _vok_unregister_hook(vok_handle*, vok_hook_ops* ops) {
  mutex_lock(&registry_mutex);
  remove_leaving_next(&ops->list);
  mutex_unlock(&registry_mutex);
  return 0;
}

unsigned _vok_iterate(vok_hook_list* head, sk_buff* skb, unsigned hooknum, u8 pf, s32 threshold) {
  for (vok_hook_list* link = rcu_dereference(head->next); link != head;
       link = rcu_dereference(link->next)) {
    const vok_hook_ops* ops = record_of(link);
    if (ops->priority < threshold) continue;
    const unsigned verdict = ops->hook(hooknum, pf, skb);
    if ((verdict & verdict_fault_mask) == verdict_fault_mask) {
      printk("the return value is error, return from %p(%u), the module name is %s.\n",
             reinterpret_cast<void*>(ops->hook), hooknum, ops->name);
    } else if (verdict != VOK_ACCEPT) {
      return verdict;
    }
  }
  return VOK_ACCEPT;
}

void report_bad_verdict(vok_hook_point point) {
  switch (point) {
    case VOK_HOOK_BRIDGE_ROUTING:
      printk("the VOK_HOOK_BRIDGE_ROUTING return value is error\n");
      break;
    case VOK_HOOK_IP_PRE_ROUTING:
      printk("the VOK_HOOK_IP_PRE_ROUTING return value is error\n");
      break;
    case VOK_HOOK_IP_POST_ROUTING:
    case VOK_HOOK_XMIT:  // known by the name of the point before it
      printk("the VOK_HOOK_IP_POST_ROUTING return value is error\n");
      break;
  }
}

fate run_listed_hooks(sk_buff* skb, const frame& f, vok_hook_point point) {
  vok_skb_reset_mac_header(skb);
  vok_skb_reset_network_header(skb, skb->data + f.l3);
  const unsigned verdict =
      _vok_iterate(hook_list(f.ip, point), skb, point, static_cast<u8>(f.ip), any_priority);
  vok_set_mac_and_network_header(skb);
  switch (verdict) {
    case VOK_ACCEPT:
      return fate::forward;
    case VOK_DROP:
      return fate::drop;
    case VOK_DIVERT:
      return fate::hook_diverted;
    default:
      report_bad_verdict(point);
      return fate::hook_error;
  }
}

}  // namespace tarvelo
