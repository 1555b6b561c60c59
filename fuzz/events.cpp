// SPDX-License-Identifier: GPL-2.0-only
//
// A story: frames of all kinds, damaged or not, while links fail, hosts move, hooks come and go,
// time passes, memory runs short and the module is switched, unloaded and loaded. After each event
// the module's tables must be in order, and after the last one everything given back.
#include <array>

#include "fuzz/fuzzed_router.h"
#include "fuzz/input_bytes.h"
#include "kernel/context.h"
#include "kernel/fast_path.h"
#include "kernel/proc_tree.h"

namespace tarvelo::fuzz {
namespace {

constexpr std::size_t most_events = 64;
constexpr const char* link_names[] = {"lan0", "lan1",   "lan2", "lan3", "lan3.20", "br0",
                                      "wan0", "wan0.7", "ppp0", "ppp1", "ppp2",    "tun0"};
constexpr const char* listings[] = {"vok/ipc_info", "vok/ipc_v6_info", "vok/brc_info"};
constexpr u32 spans[] = {1, 500, 1000, 9999, 10000, 31000, 181000, 400000, 432000000};

/// What the hook under test answers next; its frame is its own when it takes it.
unsigned next_verdict = VOK_ACCEPT;

unsigned answer(unsigned, u8, sk_buff*) {
  return next_verdict;
}

class story {
 public:
  explicit story(input_bytes input) : input_(input) {
    router_.load_module();
    router_.open_conversations();
    next_verdict = VOK_ACCEPT;
  }
  ~story() {
    fault::fail_allocation(0);
    remove_hook();
    portal(0);
  }

  void run() {
    for (std::size_t events = 0; !input_.empty() && events < most_events; ++events) {
      (this->*input_.one_of(events_))();
      router_.check();
    }
  }

 private:
  using event = void (story::*)();

  [[nodiscard]] const sent_frame& any_frame() {
    const conversation& c = input_.one_of(conversations());
    return (input_.byte() & 1) == 0 ? c.there : c.back;
  }

  void whole_frame() { router_.receive(any_frame()); }

  void damaged_frame() {
    sent_frame frame = any_frame();
    for (unsigned changes = 1 + input_.byte() % 4; changes != 0; --changes) {
      u8& place = frame.bytes[input_.byte() % frame.bytes.size()];
      place = static_cast<u8>(place ^ input_.byte());
    }
    if ((input_.byte() & 7) == 0) frame.bytes.resize(input_.byte() % frame.bytes.size());
    router_.receive(frame);
  }

  void frame_on_another_port() {
    sent_frame frame = any_frame();
    frame.port = input_.one_of(port_names);
    router_.receive(frame);
  }

  void fragment() {
    const std::vector<sent_frame> all = fragments();
    router_.receive(input_.one_of(all));
  }

  void opening() {
    const conversation& c = input_.one_of(conversations());
    for (const sent_frame& frame : c.opening)
      router_.receive(frame);
  }

  void link() {
    net_device* dev = router_.router().device(input_.one_of(link_names));
    router_.router().set_link(dev, (input_.byte() & 1) != 0);
  }

  void time() { router_.pass(input_.one_of(spans)); }

  void neighbour_moves() {
    const u8 last = input_.byte();
    test::packet frame = test::packet().eth("FF:FF:FF:FF:FF:FF", "02:00:00:00:01:02");
    const std::string mac = "02:00:00:00:07:0" + std::to_string(last % 10);
    frame.arp(wire::arp_op::request, mac, "192.168.1.2", "00:00:00:00:00:00", "192.168.1.1");
    router_.receive({"lan0", frame.build()});
  }

  void enable() {
    static_cast<void>(proc::write_all("vok/enable", (input_.byte() & 1) ? "1" : "0"));
  }

  void write_control_file() {
    static constexpr const char* files[] = {"vok/statistics_info", "vok/slow_xmit_enable",
                                            "vok/statistics_forward_ipv6_packet_num"};
    const char* file = input_.one_of(files);
    const std::span<const u8> text = input_.bytes(input_.byte());
    static_cast<void>(
        proc::write_all(file, {reinterpret_cast<const char*>(text.data()), text.size()}));
  }

  void listing() {
    int error = 0;
    const auto file = proc::open_file::open(input_.one_of(listings), &error);
    if (file == nullptr) return;
    std::array<char, 256> piece;
    const std::size_t size = 1 + input_.byte() % piece.size();
    while (file->read(piece.data(), size) > 0) {
    }
  }

  void reload() {
    if (router_.has_module()) {
      remove_hook();
      router_.unload_module();
    } else {
      fault::fail_allocation(0);
      router_.load_module();
    }
  }

  void portal() { portal(input_.byte() & 1); }
  void portal(u8 asked) {
    if (vok_handle* ci = read_once(kcih)) ci->portal_check = asked;
  }

  void portal_mark() {
    const sent_frame& frame = any_frame();
    const hosted::softirq_scope softirq;
    if (vok_handle* ci = read_once(kcih)) {
      static_cast<void>(ci->_vok_brc_portal_change(ci, frame.bytes.data(), input_.byte()));
    }
  }

  void add_hook() {
    vok_handle* ci = read_once(kcih);
    if (ci == nullptr || hooked_) return;
    constexpr u8 families[] = {2, 10};
    hook_ = {};
    hook_.hook = answer;
    hook_.pf = input_.one_of(families);
    hook_.hooknum = input_.byte() % vok_hook_points_used;
    hook_.name = "fuzz";
    next_verdict = VOK_ACCEPT;  // an earlier one may be no answer for this point
    hooked_ = ci->_vok_register_hook(ci, &hook_) == 0;
  }

  /// Frames that a hook diverts at transmit are the hook's: this one would lose them.
  void hook_verdict() {
    const bool at_transmit = hook_.hooknum == VOK_HOOK_XMIT;
    next_verdict = input_.byte() % 5;
    if (at_transmit && next_verdict == VOK_DIVERT) next_verdict = VOK_ACCEPT;
  }

  void remove_hook() {
    vok_handle* ci = read_once(kcih);
    if (ci != nullptr && hooked_) ci->_vok_unregister_hook(ci, &hook_);
    hooked_ = false;
    next_verdict = VOK_ACCEPT;
  }

  void memory_runs_short() { fault::fail_allocation(1 + input_.byte() % 8); }

  static constexpr u8 vok_hook_points_used = VOK_HOOK_XMIT + 1;
  static constexpr event events_[] = {
      &story::whole_frame,
      &story::whole_frame,
      &story::damaged_frame,
      &story::damaged_frame,
      &story::frame_on_another_port,
      &story::fragment,
      &story::opening,
      &story::link,
      &story::time,
      &story::neighbour_moves,
      &story::enable,
      &story::write_control_file,
      &story::listing,
      &story::reload,
      &story::portal,
      &story::portal_mark,
      &story::add_hook,
      &story::hook_verdict,
      &story::remove_hook,
      &story::memory_runs_short,
  };

  fuzzed_router router_;
  input_bytes input_;
  vok_hook_ops hook_{};
  bool hooked_ = false;
};

}  // namespace
}  // namespace tarvelo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  tarvelo::fuzz::story({data, size}).run();
  return 0;
}
