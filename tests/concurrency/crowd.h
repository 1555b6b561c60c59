// SPDX-License-Identifier: GPL-2.0-only
//
// Many threads at one thing. Each does one kind of work again and again, on a processor of its own;
// now and then all of them stop, and what must hold while nobody works is looked at.
//
// What goes wrong in between shows in four ways: a sanitizer or the checked kernel ends the
// program, an expectation of a worker fails, a rule is broken when all is quiet, or something has
// not been given back at the end.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include "tests/kernel/small_random.h"

namespace tarvelo::test {

/// What one way for connections to end leaves of the cached ones, when nobody else works.
enum class left : unsigned char {
  nothing,
  some,
  all,
};

/// A way in which connections end.
struct ending {
  const char* name;
  std::function<void()> happen;
  left leaves = left::nothing;
  bool only_in_peace = false;  ///< not while everybody works
};

/// How long a crowd works: a few seconds, or what --seconds says.
[[nodiscard]] std::chrono::seconds crowd_time();

class crowd {
 public:
  using work = std::function<void(small_random& random)>;

  /// Before anybody works. Process context, unless `what` enters softirq context.
  void add(work what) { workers_.push_back(std::move(what)); }

  /// Everybody works until `deed` returns, which the caller does meanwhile.
  void work_during(const std::function<void()>& deed);

  /// Everybody works for crowd_time(), while in each round connections end in another way. When all
  /// have stopped, `fill` makes connections that end in that way once more. `look` is called before
  /// and after.
  void work_in_rounds(const std::vector<ending>& endings, const std::function<void()>& fill,
                      const std::function<void()>& look);

 private:
  void end_while_all_work(const ending& way);

  std::vector<work> workers_;
  unsigned rounds_ = 0;
};

/// Opens a control file, if it is there, and reads the beginning of it in pieces.
void read_some(const char* path, small_random& random);

/// Lets the others get on for up to that many milliseconds.
void rest(small_random& random, unsigned most);

}  // namespace tarvelo::test
