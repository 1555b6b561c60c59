# SPDX-License-Identifier: GPL-2.0-only
# What tunnels, bridges and VLANs are made of.
target_sources(tarvelo_kernel PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/bridge.cpp
  ${CMAKE_CURRENT_LIST_DIR}/bridge_fdb.cpp
  ${CMAKE_CURRENT_LIST_DIR}/l2tp.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ppp_channel.cpp
  ${CMAKE_CURRENT_LIST_DIR}/vlan_table.cpp)
