# SPDX-License-Identifier: ISC
# 64-bit big-endian IBM Z: wire integers not read and written bytewise show up in the tests.
set(TAVC_CROSS_TRIPLE s390x-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(TAVC_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu.cmake)
