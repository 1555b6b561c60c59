# SPDX-License-Identifier: GPL-2.0-only
# 32-bit ARMv7, the router's processor: Debian's cross compiler, programs run by qemu-arm. Run
# cmake/armhf-sysroot.sh first: it puts the libraries of that processor below build/armhf.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7)

set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a+fp -Wno-psabi -D_FILE_OFFSET_BITS=64")

get_filename_component(TARVELO_ARMHF ${CMAKE_CURRENT_LIST_DIR}/../build/armhf ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${TARVELO_ARMHF} /usr/arm-linux-gnueabihf)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${TARVELO_ARMHF})
set(ENV{PKG_CONFIG_LIBDIR} ${TARVELO_ARMHF}/usr/lib/arm-linux-gnueabihf/pkgconfig)

# Both library folders, so that the programs need no run-time path of this machine.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L /usr/arm-linux-gnueabihf
    -E LD_LIBRARY_PATH=${TARVELO_ARMHF}/usr/lib/arm-linux-gnueabihf)
