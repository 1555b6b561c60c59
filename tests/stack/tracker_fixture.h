// SPDX-License-Identifier: GPL-2.0-only
//
// A tracker between two devices, and a stand-in for the module that records what it is told.
//
// lan0 has the hosts 192.168.1.0/24; wan0 has 203.0.113.9 and everything else. Every packet that
// comes out is checked for right lengths and checksums.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "stack/conntrack.h"
#include "stack/stack_lock.h"
#include "tarvelo/ct_ext.h"
#include "tarvelo/handle.h"
#include "tests/support/fake_device.h"
#include "tests/support/frame_match.h"
#include "tests/support/kernel_fixture.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::test {

/// The handle of a module that only takes notes. Published while it exists.
class note_taking_module {
 public:
  struct add {
    unsigned hook;
    int info;
    std::string dev;
    std::string rx_dev;
    bool as_reply;
    std::string translated;  ///< "source>destination", or "-"
    bytes packet;            ///< as it stood
  };

  note_taking_module();
  ~note_taking_module();
  note_taking_module(const note_taking_module&) = delete;
  note_taking_module& operator=(const note_taking_module&) = delete;

  void withdraw();

  std::vector<add> adds;
  std::vector<std::string> deletes;      ///< original tuple of each, "source>destination"
  std::function<void(nf_conn*)> on_add;  ///< may set marks, as the module does
  std::atomic<int> records = 0;          ///< extension records out

 private:
  vok_handle handle_{};
};

[[nodiscard]] std::string tuple_text(const nf_conntrack_tuple& tuple);

/// What became of a packet.
struct passage {
  bool dropped;
  bytes packet;
  int info;  ///< ip_conntrack_info
  u8 tcp_state;
  u32 fast_flags;
};

class tracker_test : public kernel_test {
 protected:
  tracker_test();
  ~tracker_test() override;

  /// Makes the tracker; at the latest the first packet does.
  stack::connection_tracker& tracker();

  /// The packet comes in by one device and leaves by the other.
  passage outward(const packet& p) { return forward(p, lan, wan); }
  passage inward(const packet& p) { return forward(p, wan, lan); }
  passage forward(const packet& p, net_device* in, net_device* out);
  /// The same, but the buffer is the caller's to free, dropped or not; `*verdict` says which.
  sk_buff* carry(const packet& p, net_device* in, net_device* out, stack::track_verdict* verdict);
  passage to_router(const packet& p);

  stack::router_config config;
  fake_device lan{"lan0"};
  fake_device wan{"wan0"};

 private:
  std::unique_ptr<stack::connection_tracker> tracker_;
};

/// Both are packets without Ethernet header.
void expect_packet(const bytes& actual, const packet& expected, const std::string& what);

inline constexpr const char* host = "192.168.1.2";
inline constexpr const char* server = "192.168.1.3";
inline constexpr const char* router_address = "203.0.113.9";
inline constexpr const char* peer = "198.51.100.7";

}  // namespace tarvelo::test
