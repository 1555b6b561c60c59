// SPDX-License-Identifier: GPL-2.0-only
#include "stack/fast_path_report.h"

#include "kernel/atomic.h"
#include "stack/published_handle.h"
#include "tarvelo/ct_ext.h"

namespace tarvelo::stack {
namespace {

/// The module may be writing another device there just now, which is to stay.
void clear_device(net_device*& slot, const net_device* dev) noexcept {
  auto* unwanted = const_cast<net_device*>(dev);
  __atomic_compare_exchange_n(&slot, &unwanted, static_cast<net_device*>(nullptr), false,
                              __ATOMIC_RELAXED, __ATOMIC_RELAXED);
}

}  // namespace

void fast_path_attach(nf_conn* ct) noexcept {
  const published_handle handle;
  if (!handle) return;
  // Its only failure is want of memory, which leaves the connection as good as one that is slow.
  static_cast<void>(handle->_vok_nf_conntrack_ext_alloc(ct));
}

void fast_path_forget(nf_conn* ct) noexcept {
  const published_handle handle;
  if (!handle) return;
  handle->_ip_conntrack_ipct_delete(handle.get(), ct);
  if (ct->vok_ext != nullptr) handle->_vok_nf_conntrack_ext_free(ct);
}

void fast_path_take_off(nf_conn* ct) noexcept {
  if (ct->vok_ext == nullptr) return;
  const published_handle handle;
  if (!handle) return;
  handle->_ip_conntrack_ipct_delete(handle.get(), ct);
  atomic_clear_mask(ct_ext_flag::direction_marks, &ct->vok_ext->flags);
}

void fast_path_report(sk_buff* skb, nf_inet_hooks hook,
                      const nf_conntrack_tuple* translated) noexcept {
  const published_handle handle;
  if (!handle) return;
  const bool reply_leaves =
      hook == NF_INET_POST_ROUTING && skb->nfctinfo == IP_CT_ESTABLISHED_REPLY;
  if (reply_leaves) skb->fast_flags |= fast_flag::add_as_reply;
  handle->_ip_conntrack_ipct_add(handle.get(), skb, hook, nf_ct_of(skb->nfct), skb->nfctinfo,
                                 translated);
  skb->fast_flags &= ~fast_flag::add_as_reply;
}

void fast_path_report_ipv6(sk_buff* skb) noexcept {
  const published_handle handle;
  if (!handle) return;
  net_device* out = skb->dev;
  skb->dev = skb->rx_dev;
  handle->__ipv6_conntrack_ipc_add(handle.get(), skb);
  skb->dev = out;
}

bool fast_path_names_device(const nf_conn* ct, const net_device* dev) noexcept {
  const vok_ct_ext* ext = ct->vok_ext;
  if (ext == nullptr) return false;
  return read_once(ext->dev) == dev || read_once(ext->vlan[0].real_dev) == dev ||
         read_once(ext->vlan[1].real_dev) == dev;
}

void fast_path_forget_device(nf_conn* ct, const net_device* dev) noexcept {
  vok_ct_ext* ext = ct->vok_ext;
  if (ext == nullptr) return;
  clear_device(ext->dev, dev);
  for (vok_ct_ext_vlan& slot : ext->vlan)
    clear_device(slot.real_dev, dev);
}

}  // namespace tarvelo::stack
