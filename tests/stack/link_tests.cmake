# SPDX-License-Identifier: GPL-2.0-only
# Tests of bridges and VLAN devices, with the module linked in.
find_package(fmt REQUIRED)
tarvelo_test(test_stack_link
  bridge_fixture.cpp
  bridge_test.cpp
  bridge_threads_test.cpp
  bridged_path_test.cpp
  growth_test.cpp
  vlan_route_test.cpp
  LIBS tarvelo_stack_fixture tarvelo_module_objects fmt::fmt)
