// SPDX-License-Identifier: GPL-2.0-only
//
//   test_concurrency [--seconds N] [GoogleTest's options]
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tests/concurrency/crowd.h"

namespace {

std::chrono::seconds time_to_work{3};

}  // namespace

std::chrono::seconds tarvelo::test::crowd_time() {
  return time_to_work;
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc == 3 && std::string_view(argv[1]) == "--seconds") {
    time_to_work = std::chrono::seconds(std::atoi(argv[2]));
  } else if (argc != 1) {
    time_to_work = {};
  }
  if (time_to_work.count() <= 0) {
    std::fputs("test_concurrency: what it takes is --seconds N, with N above 0\n", stderr);
    return 2;
  }
  return RUN_ALL_TESTS();
}
