# SPDX-License-Identifier: ISC
# Cross build with one of Debian's cross compilers; included by the files
# named for their target (mips-linux-gnu.cmake, ...), which set
# TAVC_CROSS_TRIPLE, CMAKE_SYSTEM_PROCESSOR and TAVC_QEMU first.
# Debian: g++-TRIPLE (compilers and the target's libc under /usr/TRIPLE) and
# qemu-user (runs target programs).
#
#   cmake --preset mips              (or: cmake --preset dev -B build/x
#                                     --toolchain cmake/toolchains/mips-linux-gnu.cmake)
#
# Libraries built for the target elsewhere are found through their <Pkg>_DIR
# or by adding their prefix to CMAKE_FIND_ROOT_PATH; GoogleTest is built from
# Debian's sources when the target has none (tests/CMakeLists.txt).

set(CMAKE_SYSTEM_NAME Linux)
set(TAVC_CROSS_ROOT /usr/${TAVC_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${TAVC_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TAVC_CROSS_TRIPLE}-g++)

# Headers, libraries and packages from the target's tree only; programs run
# during the build (code generators, the shell) from the build machine.
list(APPEND CMAKE_FIND_ROOT_PATH ${TAVC_CROSS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ctest and gtest_discover_tests run target programs through user-mode qemu
# named explicitly (a CI machine may lack binfmt_misc); -L points its loader
# and libc look-ups at the target's tree.
find_program(TAVC_QEMU_PATH ${TAVC_QEMU})
if(NOT TAVC_QEMU_PATH)
  set(TAVC_QEMU_PATH ${TAVC_QEMU})
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVC_QEMU_PATH};-L;${TAVC_CROSS_ROOT})
