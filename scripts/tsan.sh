#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Builds the tests in which threads meet with ThreadSanitizer, and runs them.
#
#   scripts/tsan.sh [SECONDS]
#
# SECONDS: how long each crowd of threads works; default 10.
set -eu
cd "$(dirname "$0")/.."

bin=build/tsan/bin
scripts/build.sh tsan test_concurrency test_kernel test_module_fragcache test_stack_link

# The sanitizer has fixed places for its own memory. Where programs are put at so random ones that
# they may lie on these, it does not start.
placed=""
"$bin/test_kernel" --gtest_list_tests >/dev/null 2>&1 || placed="setarch --addr-no-randomize"

export TSAN_OPTIONS="halt_on_error=1:${TSAN_OPTIONS:-}"
$placed "$bin/test_kernel" --gtest_brief=1
$placed "$bin/test_module_fragcache" --gtest_brief=1
$placed "$bin/test_stack_link" --gtest_brief=1
$placed "$bin/test_concurrency" --gtest_brief=1 --seconds "${1:-10}"
