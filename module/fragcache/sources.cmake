# SPDX-License-Identifier: GPL-2.0-only
target_sources(tarvelo_module_objects PRIVATE ${CMAKE_CURRENT_LIST_DIR}/ipv4.cpp
                                              ${CMAKE_CURRENT_LIST_DIR}/ipv6.cpp
                                              ${CMAKE_CURRENT_LIST_DIR}/negative.cpp)
