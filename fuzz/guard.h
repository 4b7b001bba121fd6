// SPDX-License-Identifier: ISC
// Safety net of the fuzz targets: once armed, any way of starting a program,
// signalling another process or moving the clock that does not go through the
// recorder aborts with its name, so that a fuzzed input can neither reach the
// machine nor go unnoticed doing so.
#pragma once

void fuzz_guard_arm();
