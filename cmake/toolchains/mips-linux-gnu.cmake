# SPDX-License-Identifier: ISC
# MIPS32 big-endian, the access points' most common CPU.
set(TAVC_CROSS_TRIPLE mips-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(TAVC_QEMU qemu-mips)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu.cmake)
