# SPDX-License-Identifier: GPL-2.0-only
# Tests of IPv6, and of fragments on the fast path: these with the module linked in.
tarvelo_test(test_stack_ipv6
  ipv6_fixture.cpp
  ipv6_test.cpp
  LIBS tarvelo_stack_fixture)
tarvelo_test(test_stack_fragment_offer
  fragment_offer_test.cpp
  ipv6_fixture.cpp
  LIBS tarvelo_stack_fixture tarvelo_module_objects)
