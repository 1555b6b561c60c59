# SPDX-License-Identifier: GPL-2.0-only
add_library(tarvelo_ipv6_scene STATIC ipv6_scene.cpp)
target_link_libraries(tarvelo_ipv6_scene PUBLIC tarvelo_module_scene)

set(ipv6_libs tarvelo_ipv6_scene ${module_libs})
tarvelo_test(test_module_ipv6 cut_frames_test.cpp ipv6_add_test.cpp ipv6_forward_test.cpp ipv6_fragment_test.cpp
             ipv6_table_test.cpp lifetime_test.cpp marks_test.cpp LIBS ${ipv6_libs})
