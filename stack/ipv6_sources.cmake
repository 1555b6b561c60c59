# SPDX-License-Identifier: GPL-2.0-only
# IPv6, and fragments of both families.
target_sources(tarvelo_stack PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/fragment_offer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/fragment_view.cpp
  ${CMAKE_CURRENT_LIST_DIR}/icmpv6.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ipv6_forward.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ipv6_input.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ipv6_output.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ipv6_packet.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ipv6_setup.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nd.cpp)
