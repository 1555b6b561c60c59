# SPDX-License-Identifier: GPL-2.0-only
tarvelo_test(test_kernel_ppp ${CMAKE_CURRENT_LIST_DIR}/ppp_channel_test.cpp
             ${CMAKE_CURRENT_LIST_DIR}/pptp_test.cpp
             ${CMAKE_CURRENT_LIST_DIR}/tunnel_wire_test.cpp LIBS tarvelo_test_support)
tarvelo_test(test_kernel_l2tp ${CMAKE_CURRENT_LIST_DIR}/l2tp_test.cpp LIBS tarvelo_test_support)
tarvelo_test(test_kernel_bridge ${CMAKE_CURRENT_LIST_DIR}/bridge_test.cpp
             ${CMAKE_CURRENT_LIST_DIR}/vlan_table_test.cpp LIBS tarvelo_test_support)
