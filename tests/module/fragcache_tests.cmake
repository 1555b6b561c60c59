# SPDX-License-Identifier: GPL-2.0-only
tarvelo_test(test_module_fragcache ${CMAKE_CURRENT_LIST_DIR}/fragcache_test.cpp
             LIBS tarvelo_module_objects tarvelo_test_support)
