# SPDX-License-Identifier: GPL-2.0-only
# What every target is compiled with: link to tarvelo_options.
add_library(tarvelo_options INTERFACE)
target_include_directories(tarvelo_options INTERFACE ${PROJECT_SOURCE_DIR}/include
                                                     ${PROJECT_SOURCE_DIR})
target_compile_options(tarvelo_options INTERFACE -Wall -Wextra -Wshadow -Wconversion
                                                 -Wno-sign-conversion -Werror)
if(TARVELO_CHECKED)
  target_compile_definitions(tarvelo_options INTERFACE TARVELO_CHECKED=1)
endif()
if(TARVELO_SANITIZE)
  target_compile_options(tarvelo_options INTERFACE -fsanitize=${TARVELO_SANITIZE}
                                                   -fno-sanitize-recover=all
                                                   -fno-omit-frame-pointer)
  target_link_options(tarvelo_options INTERFACE -fsanitize=${TARVELO_SANITIZE})
endif()
# What is fuzzed tells the fuzzer which ways it takes.
if(TARVELO_FUZZ)
  target_compile_options(tarvelo_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
