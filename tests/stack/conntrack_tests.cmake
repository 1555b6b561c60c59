# SPDX-License-Identifier: GPL-2.0-only
# Tests of connection tracking, translation and the reports to the module.
foreach(subject tcp nat report)
  tarvelo_test(test_conntrack_${subject} conntrack_${subject}_test.cpp tracker_fixture.cpp
               LIBS tarvelo_stack tarvelo_test_support)
endforeach()
