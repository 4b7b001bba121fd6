# SPDX-License-Identifier: ISC
# 64-bit ARM.
set(TAVC_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TAVC_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu.cmake)
