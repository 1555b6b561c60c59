// SPDX-License-Identifier: GPL-2.0-only
//
// Traffic through a router in this process, and what the two paths made of it.
#pragma once

#include <gtest/gtest.h>

#include "stack/router.h"
#include "tests/differential/agreement.h"
#include "tests/differential/traffic.h"

namespace tarvelo::test {

struct outcome {
  stack::receive_verdict verdict;
  std::vector<sent_by_port> sent;
};

/// What became of each step. A router and a module of their own, from the clock's start on; all
/// that they took has been given back. Process context.
[[nodiscard]] std::vector<outcome> replay(const traffic& what, bool fast_path);

/// Fails with the frames of the first datagrams on which the two runs do not agree.
[[nodiscard]] testing::AssertionResult agree(const traffic& what, const std::vector<outcome>& slow,
                                             const std::vector<outcome>& fast);

}  // namespace tarvelo::test
