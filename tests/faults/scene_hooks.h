// SPDX-License-Identifier: GPL-2.0-only
//
// One function as a hook of both families at one point; one such object at a time.
#pragma once

#include <functional>

#include "kernel/fast_path.h"
#include "kernel/rcupdate.h"
#include "tarvelo/hook.h"

namespace tarvelo::test {

inline constexpr vok_hook_point hook_points[] = {VOK_HOOK_BRIDGE_ROUTING, VOK_HOOK_IP_PRE_ROUTING,
                                                 VOK_HOOK_IP_POST_ROUTING, VOK_HOOK_XMIT};

class hook_everywhere {
 public:
  using function = std::function<unsigned(sk_buff*)>;

  hook_everywhere(vok_hook_point point, function what) : point_(point) { what_ = std::move(what); }
  hook_everywhere(const hook_everywhere&) = delete;
  hook_everywhere& operator=(const hook_everywhere&) = delete;

  /// While the module is loaded; process context.
  ///@{
  void attach() {
    for (int i = 0; i < 2; ++i) {
      records_[i] = {{}, &call, nullptr, families[i], point_, 0, "tester"};
      static_cast<void>(kcih->_vok_register_hook(kcih, &records_[i]));
    }
  }
  void detach() {
    for (vok_hook_ops& record : records_)
      static_cast<void>(kcih->_vok_unregister_hook(kcih, &record));
    synchronize_rcu();
  }
  ///@}

 private:
  static constexpr u8 families[] = {2, 10};
  static unsigned call(unsigned, u8, sk_buff* skb) { return what_(skb); }
  static inline function what_;

  vok_hook_point point_;
  vok_hook_ops records_[2];
};

}  // namespace tarvelo::test
