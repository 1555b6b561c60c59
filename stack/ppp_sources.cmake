# SPDX-License-Identifier: GPL-2.0-only
# PPP interfaces and what carries them.
target_sources(tarvelo_stack PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/fast_path_tunnels.cpp
  ${CMAKE_CURRENT_LIST_DIR}/l2tp.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ppp.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ppp_session.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ppp_table.cpp
  ${CMAKE_CURRENT_LIST_DIR}/pppoe.cpp
  ${CMAKE_CURRENT_LIST_DIR}/pptp.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tunnel_packet.cpp)
