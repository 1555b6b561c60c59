// SPDX-License-Identifier: GPL-2.0-only
#include "tests/differential/replay.h"

#include <stdexcept>

#include "kernel/module_loader.h"
#include "kernel/proc_tree.h"
#include "kernel/rcupdate.h"
#include "module/core/init.h"
#include "tests/stack/router_fixture.h"
#include "tests/support/module_invariants.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

const u32 start = kernel_test::default_start();
constexpr unsigned shown_at_most = 3;
constexpr std::size_t shown_bytes = 96;

[[nodiscard]] std::vector<sent_by_port> take_sent(const stack::router_config& config) {
  std::vector<sent_by_port> all;
  for (const stack::device_config& device : config.devices) {
    const bool raw = std::holds_alternative<stack::rawip_link>(device.link);
    if (!raw && !std::holds_alternative<stack::port_link>(device.link)) continue;
    for (bytes& frame : sent_on(device.name))
      all.push_back({device.name, raw ? link::ip : link::ethernet, std::move(frame)});
  }
  return all;
}

/// What came of a datagram: its steps are not next to each other.
struct datagram {
  std::vector<const step*> steps;
  std::vector<sent_by_port> slow, fast;
  bool routed_fast = false;
};

[[nodiscard]] std::vector<datagram> collect(const traffic& what, const std::vector<outcome>& slow,
                                            const std::vector<outcome>& fast) {
  std::vector<datagram> all;
  for (std::size_t i = 0; i < what.steps.size(); ++i) {
    const step& s = what.steps[i];
    if (s.datagram >= all.size()) all.resize(s.datagram + 1);
    datagram& d = all[s.datagram];
    d.steps.push_back(&s);
    d.slow.insert(d.slow.end(), slow[i].sent.begin(), slow[i].sent.end());
    d.fast.insert(d.fast.end(), fast[i].sent.begin(), fast[i].sent.end());
    d.routed_fast |= fast[i].verdict == receive_verdict::fast && !what.flows[s.flow].bridged;
  }
  return all;
}

/// The stack says nothing or tells the sender; the fast path has sent it on.
[[nodiscard]] bool is_refused(const datagram& d, const flow& f) {
  const step& s = *d.steps.front();
  const std::string& there = f.side[s.direction].to->port;
  const auto goes_on = [&there](const sent_by_port& one) { return one.port == there; };
  return d.fast.size() == 1 && goes_on(d.fast.front()) &&
         (d.slow.empty() || (d.slow.size() == 1 && s.what.unchecked));
}

[[nodiscard]] bool agrees(const datagram& d, const flow& f) {
  if (!d.routed_fast) return without_own_numbers(d.slow) == without_own_numbers(d.fast);
  if (d.steps.front()->what.unchecked && is_refused(d, f)) return true;
  return without_fragments(d.slow) == without_fragments(as_by_stack(d.fast));
}

void show(const char* title, const std::vector<sent_by_port>& frames, std::ostream& to) {
  to << " " << title << ":\n";
  for (const sent_by_port& one : frames) {
    const auto beginning = std::span(one.frame).first(std::min(one.frame.size(), shown_bytes));
    to << "  " << one.port << ": " << describe(one.frame, one.kind) << "\n" << hex_dump(beginning);
  }
}

void show(const datagram& d, const traffic& what, std::ostream& to) {
  const step& first = *d.steps.front();
  to << "datagram " << first.datagram << " of flow " << first.flow << " ("
     << what.flows[first.flow].name() << "), " << first.what.name << "\n";
  std::vector<sent_by_port> received;
  for (const step* s : d.steps)
    received.push_back(
        {s->by->port, s->by->kind == link_kind::rawip ? link::ip : link::ethernet, s->frame});
  show("received", received, to);
  show("sent with the fast path off", d.slow, to);
  show(d.routed_fast ? "sent by the fast path" : "sent with the fast path on", d.fast, to);
}

}  // namespace

std::vector<outcome> replay(const traffic& what, bool fast_path) {
  std::vector<outcome> all;
  const fault::outstanding before = fault::now();
  kernel_clock::start_at(start);
  {
    stack::router router(what.net.config, recording_ops());
    std::string error;
    const auto module =
        loaded_module::load_linked(init_module, cleanup_module, &__this_module, &error);
    if (module == nullptr) throw std::runtime_error(error);
    if (!fast_path) static_cast<void>(proc::write_all("vok/enable", "0"));
    for (const step& s : what.steps) {
      kernel_clock::advance_to(start + s.at);
      sk_buff* skb = make_skb(s.frame, router.device(s.by->port));
      const receive_verdict verdict = in_softirq([&] { return router.receive(skb); });
      all.push_back({verdict, take_sent(what.net.config)});
    }
    EXPECT_EQ(broken_invariant(), "");
  }
  rcu_barrier();
  EXPECT_EQ(fault::now(), before);
  return all;
}

testing::AssertionResult agree(const traffic& what, const std::vector<outcome>& slow,
                               const std::vector<outcome>& fast) {
  std::ostringstream faults;
  unsigned count = 0;
  for (const datagram& d : collect(what, slow, fast)) {
    if (d.steps.empty() || agrees(d, what.flows[d.steps.front()->flow])) continue;
    if (++count <= shown_at_most) show(d, what, faults);
  }
  if (count == 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << count << " datagrams do not agree\n" << faults.str();
}

}  // namespace tarvelo::test
