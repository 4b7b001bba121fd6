# SPDX-License-Identifier: ISC
# MIPS32 little-endian.
set(TAVC_CROSS_TRIPLE mipsel-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(TAVC_QEMU qemu-mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu.cmake)
