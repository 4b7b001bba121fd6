// SPDX-License-Identifier: ISC
// Debian's libstdc++ headers ask glibc for its version; under musl there is
// no glibc, and none of the features they test for is used by the daemon.
#define __GLIBC_PREREQ(maj, min) 0
