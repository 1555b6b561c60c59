// SPDX-License-Identifier: GPL-2.0-only
#include "stack/conntrack_life.h"

#include "kernel/jiffies.h"
#include "kernel/timer.h"
#include "stack/conntrack_timeout.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {
namespace {

void leave_table(connection& c) noexcept {
  c.table->remove(c);
  nf_ct_set_status(c.ct, IPS_DYING);
}

/// The timer's function; the table's reference has come to it.
void time_is_up(unsigned long data) {
  nf_conn* ct = reinterpret_cast<nf_conn*>(data);
  {
    const stack_guard guard;
    connection& c = *connection_of(ct);
    if (c.table != nullptr) leave_table(c);
  }
  nf_conntrack_put(&ct->ct_general);
}

}  // namespace

found_connection connection_life::find(const nf_conntrack_tuple& tuple) noexcept {
  const found_connection found = table_.find(tuple);
  if (found.owner == nullptr || timer_pending(&found.owner->ct->timeout)) return found;
  end(*found.owner);
  return {nullptr, IP_CT_DIR_ORIGINAL};
}

connection* connection_life::begin(const nf_conntrack_tuple& original) noexcept {
  connection* c = living_connections() < limit_ ? make_connection(original) : nullptr;
  if (c == nullptr) {
    count_one(refused_);
    return nullptr;
  }
  setup_timer(&c->ct->timeout, time_is_up, reinterpret_cast<unsigned long>(c->ct));
  return c;
}

bool connection_life::confirm(connection& c) noexcept {
  for (const nf_conntrack_tuple& tuple : c.ct->tuple) {
    if (table_.contains(tuple)) return false;
  }
  nf_conntrack_get(&c.ct->ct_general);
  table_.insert(c);
  c.ct->timeout.expires = jiffies + connection_timeout(c.ct);
  add_timer(&c.ct->timeout);
  nf_ct_set_status(c.ct, IPS_CONFIRMED);
  count_one(confirmed_);
  return true;
}

void connection_life::refresh(connection& c) noexcept {
  if (c.table == nullptr) return;
  nf_ct_refresh_pending(c.ct, jiffies + connection_timeout(c.ct));
}

void connection_life::end(connection& c) noexcept {
  leave_table(c);
  nf_conn* ct = c.ct;
  if (del_timer(&ct->timeout) == 1) nf_conntrack_put(&ct->ct_general);
}

void connection_life::end_all() noexcept {
  std::size_t cursor = 0;
  while (connection* c = table_.any_from(&cursor))
    end(*c);
}

}  // namespace tarvelo::stack
