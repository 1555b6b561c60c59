# SPDX-License-Identifier: GPL-2.0-only
# Connection tracking and address translation.
target_sources(tarvelo_stack PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/conntrack.cpp
  ${CMAKE_CURRENT_LIST_DIR}/conntrack_icmp.cpp
  ${CMAKE_CURRENT_LIST_DIR}/conntrack_life.cpp
  ${CMAKE_CURRENT_LIST_DIR}/conntrack_packet.cpp
  ${CMAKE_CURRENT_LIST_DIR}/conntrack_record.cpp
  ${CMAKE_CURRENT_LIST_DIR}/conntrack_table.cpp
  ${CMAKE_CURRENT_LIST_DIR}/conntrack_tcp.cpp
  ${CMAKE_CURRENT_LIST_DIR}/conntrack_timeout.cpp
  ${CMAKE_CURRENT_LIST_DIR}/fast_path_report.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nat_ports.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nat_rewrite.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nat_rules.cpp)
