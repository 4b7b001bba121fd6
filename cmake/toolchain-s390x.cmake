# Cross build for s390x-linux-gnu: a 64-bit big-endian target, so wire
# integers that were not read and written bytewise show up in the tests.
# Debian: g++-s390x-linux-gnu (compilers and the target's libc under
# /usr/s390x-linux-gnu) and qemu-user (runs the test binaries).
#
#   cmake --preset dev -B build/s390x --toolchain cmake/toolchain-s390x.cmake
#
# Libraries built for the target elsewhere (GoogleTest, say) are found through
# their <Pkg>_DIR or by adding their prefix to CMAKE_FIND_ROOT_PATH.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)

set(TAVC_CROSS_TRIPLE s390x-linux-gnu)
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

# ctest and gtest_discover_tests run target programs through user-mode qemu;
# -L points its loader and libc lookups at the target's tree.
find_program(TAVC_QEMU_S390X qemu-s390x)
if(NOT TAVC_QEMU_S390X)
  set(TAVC_QEMU_S390X qemu-s390x)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVC_QEMU_S390X};-L;${TAVC_CROSS_ROOT})
