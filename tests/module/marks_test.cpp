// SPDX-License-Identifier: GPL-2.0-only
//
// The module and the kernel each have marks in one word of a connection's record, and no lock in
// common. Here the kernel sets its own just when the module writes: the word is in a page that may
// not be written, and what the fault does first is what another processor would have done.
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <memory>

#include "kernel/atomic.h"
#include "tests/module/ipv6_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;

/// A connection's record in place of its own, its marks alone at the end of a page.
class watched_record {
 public:
  explicit watched_record(nf_conn* ct) : ct_(ct), own_(ct->vok_ext) {
    pages_ = static_cast<char*>(
        mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    EXPECT_NE(pages_, MAP_FAILED);
    ct->vok_ext = reinterpret_cast<vok_ct_ext*>(pages_ + page_ - offsetof(vok_ct_ext, dev));
    EXPECT_EQ(mprotect(pages_, page_, PROT_READ), 0);
    struct sigaction action = {};
    action.sa_sigaction = [](int, siginfo_t* info, void*) { current_->fault(info->si_addr); };
    action.sa_flags = SA_SIGINFO;
    current_ = this;
    sigaction(SIGSEGV, &action, &before_);
  }
  ~watched_record() {
    sigaction(SIGSEGV, &before_, nullptr);
    *own_ = *ct_->vok_ext;
    ct_->vok_ext = own_;
    munmap(pages_, 2 * page_);
  }
  watched_record(const watched_record&) = delete;
  watched_record& operator=(const watched_record&) = delete;

 private:
  void fault(const void* at) {
    mprotect(pages_, page_, PROT_READ | PROT_WRITE);
    if (at != &ct_->vok_ext->flags) std::abort();
    atomic_set_mask(ct_ext_flag::never_add, &ct_->vok_ext->flags);
  }

  static inline watched_record* current_;
  const std::size_t page_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  nf_conn* ct_;
  vok_ct_ext* own_;
  char* pages_;
  struct sigaction before_;
};

class marks : public ipv6_scene {
 protected:
  tracked_connection v4_{tuple(tcp, inside, peer), tuple(tcp, peer, translated)};
  tracked6 v6_{tcp, inside6, peer6};
};

TEST_F(marks, of_the_kernel_stay_when_the_module_sets_its_own) {
  const struct {
    const char* name;
    nf_conn* ct;
    std::function<void()> add;
  } rows[] = {
      {"IPv4", v4_.get(), [this] { make_report(source_nat(v4_, tcp, false)); }},
      {"IPv6", v6_.get(), [this] { make_report(outbound(v6_, tcp)); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const watched_record record(row.ct);
    row.add();
    constexpr u32 both = ct_ext_flag::never_add | ct_ext_flag::ever_added;
    EXPECT_EQ(row.ct->vok_ext->flags & both, both);
  }
}

}  // namespace
}  // namespace tarvelo::test
