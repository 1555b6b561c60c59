// SPDX-License-Identifier: GPL-2.0-only
//
// Loading and unloading. Loading brings everything into being in a fixed order and publishes the
// handle last, so that no call-out meets a half-made module; what fails half-way takes down what
// was made before it, in reverse order.
//
// Unloading withdraws the handle first. A caller that has already read it is inside an RCU read
// side, so one grace period later nobody is inside an operation, and tables and locks can go.
#include "module/core/init.h"

#include "kernel/printk.h"
#include "module/core/counters.h"
#include "module/core/handle.h"
#include "module/forward/hooks.h"
#include "module/fragcache/ipv4.h"
#include "module/fragcache/ipv6.h"
#include "module/fragcache/negative.h"
#include "module/ipc/ct_ext.h"
#include "module/proc/entries.h"
#include "module/proc/registration.h"

struct module __this_module = {"tarvelo", {0}};

namespace tarvelo {
namespace {

// Read by whoever wants to know before loading; NUL-terminated texts, one after the other.
[[gnu::section(".modinfo"), gnu::used]] constinit const char modinfo_license[] = "license=GPL";
[[gnu::section(".modinfo"), gnu::used]] constinit const char modinfo_depends[] = "depends=";

constexpr const char* module_name = "tarvelo";
constexpr const char* directory_name = "vok";
constexpr int exit_message_line = 4353;

[[nodiscard]] bool create_control_files() {
  _vok_proc_dir_entry = _vok_register_proc_filesystem_entry(nullptr, vok_proc_entries,
                                                            vok_proc_entry_count, directory_name);
  if (_vok_proc_dir_entry != nullptr) return true;
  printk(KERN_ERR "create vok debug file system failed, the proc name is %s", directory_name);
  printk("create vok debug file system failed\n");
  return false;
}

void remove_control_files() {
  _vok_unregister_proc_filesystem_entry(nullptr, vok_proc_entries, vok_proc_entry_count,
                                        directory_name, _vok_proc_dir_entry);
  _vok_proc_dir_entry = nullptr;
}

/// On failure destroy_fragment_caches() takes down what there is.
[[nodiscard]] bool create_fragment_caches() {
  return udp_fragCache_init(udp_fragment_entries) != 0 && negative_fragCache_init() != 0 &&
         vok_udp_fragCache_v6_init(udp_fragment_v6_entries) != 0;
}

/// Passes over a cache that is not there.
void destroy_fragment_caches() {
  udp_fragCache_free(udp_fragment_entries);
  vok_udp_fragcache_free_v6(udp_fragment_v6_entries);
  negative_fragCache_free();
}

[[nodiscard]] bool publish_handle() {
  vok_handle* ci = _vok_attach(module_name);
  rcu_assign_pointer(kcih, ci);
  if (ci == nullptr) {
    printk("%s: Tarvelo_init failed\n", "vok_init");
    return false;
  }
  printk("###tarvelo init successfull####\n");
  return true;
}

void withdraw_handle() {
  vok_handle* ci = read_once(kcih);
  write_once(kcih, static_cast<vok_handle*>(nullptr));
  if (ci == nullptr) return;
  synchronize_rcu();
  detach(ci);
}

int load() {
  reset_counters();
  init_hook_registry();
  if (!create_control_files()) return -1;
  if (_vok_memory_cache_init()) {
    if (create_fragment_caches() && publish_handle()) return 0;
    destroy_fragment_caches();
    memory_cache_destroy();
  }
  remove_control_files();
  return -1;
}

void unload() {
  withdraw_handle();
  remove_control_files();
  memory_cache_destroy();
  destroy_fragment_caches();
  printk("%s %d: #########tarvelo exit success########\n", "vok_exit", exit_message_line);
}

}  // namespace
}  // namespace tarvelo

int init_module() {
  return tarvelo::load();
}

void cleanup_module() {
  tarvelo::unload();
}
