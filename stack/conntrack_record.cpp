// SPDX-License-Identifier: GPL-2.0-only
#include "stack/conntrack_record.h"

#include <initializer_list>

#include "kernel/slab.h"
#include "stack/conntrack_packet.h"
#include "stack/fast_path_report.h"

namespace tarvelo::stack {

constinit connection_registry registry = {{}, {&registry.all, &registry.all}, 0};

connection* make_connection(const nf_conntrack_tuple& original) noexcept {
  nf_conn* ct = nf_conntrack_alloc();
  if (ct == nullptr) return nullptr;
  auto* made = static_cast<connection*>(kzalloc(sizeof(connection), GFP_ATOMIC));
  if (made == nullptr) {
    nf_conntrack_free(ct);
    return nullptr;
  }
  ct->stack = made;
  ct->tuple[IP_CT_DIR_ORIGINAL] = original;
  ct->tuple[IP_CT_DIR_ORIGINAL].dst.dir = IP_CT_DIR_ORIGINAL;
  ct->tuple[IP_CT_DIR_REPLY] = inverse(ct->tuple[IP_CT_DIR_ORIGINAL]);
  made->ct = ct;
  for (ip_conntrack_dir dir : {IP_CT_DIR_ORIGINAL, IP_CT_DIR_REPLY}) {
    made->links[dir] = {nullptr, made, dir};
  }
  spin_lock_bh(&registry.lock);
  list_add_tail(&made->all, &registry.all);
  write_once(registry.count, registry.count + 1);
  spin_unlock_bh(&registry.lock);
  return made;
}

void destroy_connection(nf_conntrack* nfct) noexcept {
  nf_conn* ct = nf_ct_of(nfct);
  connection* ended = connection_of(ct);
  // Under the lock, so that a module that is going takes the record back either before this or
  // finds the connection no longer listed.
  spin_lock_bh(&registry.lock);
  fast_path_forget(ct);
  if (ended != nullptr) {
    list_del_init(&ended->all);
    write_once(registry.count, registry.count - 1);
  }
  spin_unlock_bh(&registry.lock);
  kfree(ended);
  nf_conntrack_free(ct);
}

u32 living_connections() noexcept {
  return read_once(registry.count);
}

}  // namespace tarvelo::stack
