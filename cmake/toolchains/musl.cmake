# SPDX-License-Identifier: ISC
# The daemon against musl, the C library of most access-point firmware, on
# this machine's CPU (Debian: musl-tools). It shows that the daemon needs
# nothing of glibc: it keeps to header-only parts of the C++ library, and
# those headers (Debian's libstdc++, configured for glibc) are used as they
# are, with musl-compat.h forced in by the `musl` preset.
#
#   cmake --preset musl && cmake --build --preset musl
set(TAVC_MUSL_TRIPLE ${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-musl)
# musl-gcc's specs put musl's headers, start files and libc in place of
# glibc's; C++ sources compile with the same driver (and link without
# libstdc++, which the daemon does not use).
set(CMAKE_C_COMPILER ${TAVC_MUSL_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TAVC_MUSL_TRIPLE}-gcc)
execute_process(COMMAND g++ -dumpversion OUTPUT_VARIABLE TAVC_GXX_VERSION OUTPUT_STRIP_TRAILING_WHITESPACE)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES
  /usr/include/c++/${TAVC_GXX_VERSION}
  /usr/include/${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-gnu/c++/${TAVC_GXX_VERSION})
