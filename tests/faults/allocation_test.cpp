// SPDX-License-Identifier: GPL-2.0-only
//
// Each allocation of a router's life failing once: what was asked for is refused or done whole, the
// frame concerned is lost at most, and when its sender has sent it again all goes on as if nothing
// had been. Nothing leaks.
#include <cstring>

#include "app/control_files.h"
#include "kernel/proc_tree.h"
#include "tests/faults/life.h"

namespace tarvelo::test {
namespace {

class allocation_faults : public kernel_test, public testing::WithParamInterface<const char*> {
 protected:
  struct deed;

  /// One life in which the n-th allocation of one deed fails; false when that deed has made fewer.
  bool live(const deed* faulty, u32 n);

  void build(life& one) {
    try {
      one.build();
    } catch (const stack::setup_error& error) {
      EXPECT_STRNE(error.what(), "");
      refused_ = true;
    }
  }
  void load(life& one);
  void unload(life& one) { one.unload(); }
  void traffic(life& one);
  void read_files(life&);
  void write_files(life&);
  void links(life& one);

  struct deed {
    const char* what;
    void (allocation_faults::*act)(life&);
    enum : u8 {
      other,
      traffic,
      load
    } kind;
  };
  static constexpr deed deeds[] = {
      {"building the router", &allocation_faults::build, deed::other},
      {"loading", &allocation_faults::load, deed::load},
      {"traffic", &allocation_faults::traffic, deed::traffic},
      {"reading control files", &allocation_faults::read_files, deed::other},
      {"writing control files", &allocation_faults::write_files, deed::other},
      {"links going down and coming up", &allocation_faults::links, deed::other},
      {"traffic after that", &allocation_faults::traffic, deed::traffic},
      {"unloading", &allocation_faults::unload, deed::other},
      {"traffic without the module", &allocation_faults::traffic, deed::traffic},
      {"loading again", &allocation_faults::load, deed::load},
      {"traffic in the end", &allocation_faults::traffic, deed::traffic},
  };

  const conversation talk_ = read_conversation(GetParam());
  bool refused_ = false;
  /// A load that allocates hundreds of times is tried with each of them failing, one after the
  /// other in one life.
  bool loads_fail_ = false;
  /// What each deed has sent in a life without a fault.
  std::map<const deed*, sent_frames> expected_;
};

void allocation_faults::load(life& one) {
  for (u32 n = 1; loads_fail_; ++n) {
    fault::fail_allocation(n);
    const bool loaded = one.load();
    if (!fault::fired()) return;
    if (loaded) one.unload();  // without one of its control files
  }
  EXPECT_TRUE(one.load());
}

void allocation_faults::traffic(life& one) {
  bool fired = false;
  one.after_frame = [&](std::size_t number) {
    if (std::exchange(fired, fault::fired()) != fault::fired()) one.send_again(number);
  };
  one.traffic();
}

void allocation_faults::read_files(life&) {
  for (const proc::entry_info& file : proc::list(app::control_directory)) {
    const std::string path = std::string(app::control_directory) + "/" + file.name;
    std::string text;
    std::string again;
    int error = 0;
    const bool whole = proc::read_all(path, &text, &error);
    EXPECT_TRUE(whole || (error == -ENOMEM && fault::fired())) << file.name;
    const bool fired = fault::fired();
    if (!fired) continue;
    EXPECT_TRUE(proc::read_all(path, &again, &error));
    if (whole) {
      EXPECT_EQ(text, again) << file.name;
    }
  }
}

void allocation_faults::write_files(life&) {
  const std::pair<const char*, const char*> rows[] = {
      {"enable", "0"},
      {"enable", "1"},
      {"slow_xmit_enable", "1"},
      {"slow_xmit_enable", "0"},
      {"statistics_info",
       "ethernet_packet=1,bridge_packet=2,bridge_pool_packet=3,ip_packet=4,ip_pool_packet=5"},
  };
  for (const auto& [name, text] : rows) {
    const std::string path = std::string(app::control_directory) + "/" + name;
    proc::entry_info info;
    if (!proc::stat(path, &info)) continue;  // one that could not be made
    int error = 0;
    const auto file = proc::open_file::open(path, &error);
    const ssize_type result = file != nullptr ? file->write(text, std::strlen(text)) : error;
    if (result > 0) continue;
    EXPECT_EQ(result, -ENOMEM);
    EXPECT_TRUE(fault::fired());
    const auto lines = log.take_text();
    EXPECT_EQ(file != nullptr,
              !lines.empty() && lines.back().find(" kmalloc ubuf failed\n") != std::string::npos);
    EXPECT_GT(proc::write_all(path, text), 0);
  }
}

void allocation_faults::links(life& one) {
  for (net_device* dev : one.ports())
    one.router().set_link(dev, false);
  for (net_device* dev : one.ports())
    one.router().set_link(dev, true);
}

bool allocation_faults::live(const deed* faulty, u32 n) {
  life one(talk_);
  refused_ = false;
  bool fired = false;
  u64 fast = 0;
  for (const deed& now : deeds) {
    SCOPED_TRACE(now.what);
    if (now.kind == deed::traffic) one.prepare_traffic();
    fault::fail_allocation(&now == faulty ? n : 0);
    (this->*now.act)(one);
    fired = fired || fault::fired();
    fault::fail_allocation(0);
    if (refused_) {
      // Nobody who is not there any more is told about the module.
      load(one);
      unload(one);
      break;
    }
    const sent_frames sent = one.take_sent();
    const sent_frames& expected = expected_.try_emplace(&now, sent).first->second;
    EXPECT_LE(missing_from(sent, expected), &now == faulty ? reassembled_frames(GetParam()) : 0);
    fast = std::max(fast, one.router().statistics().fast);
  }
  EXPECT_EQ(fast > 0, !refused_);
  EXPECT_EQ(refused_, fired && faulty == deeds);
  static_cast<void>(log.take());
  return fired;
}

TEST_P(allocation_faults, leave_nothing_but_a_frame_to_send_again) {
  live(nullptr, 0);
  loads_fail_ = true;
  live(nullptr, 0);
  loads_fail_ = false;
  for (const deed& faulty : deeds) {
    if (faulty.kind == deed::load) continue;
    for (u32 n = 1; live(&faulty, n); ++n) {
      if (!HasFailure()) continue;
      FAIL() << "allocation " << n << " of " << faulty.what;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(talks, allocation_faults, testing::ValuesIn(conversations),
                         [](const auto& row) { return test_name(row.param); });

}  // namespace
}  // namespace tarvelo::test
