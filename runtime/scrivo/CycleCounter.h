// SPDX-License-Identifier: Apache-2.0
// The processor's cycle counter: the cheapest clock there is, without a unit of its own.
#pragma once

#include <ctime>

#include "runtime/vel/Types.h"

namespace Scrivo {

/// Nanoseconds of a clock of clock_gettime(2).
inline Vel::U64 clockNanoseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<Vel::U64>(now.tv_sec) * 1'000'000'000 + static_cast<Vel::U64>(now.tv_nsec);
}

/// The counter now. Its rate is constant on any processor of the last fifteen years; a trace file says which.
/// Not serializing: instructions nearby may move across it, which is cheaper and does not matter to a trace.
inline Vel::U64 cycleCounter() {
#if defined(__x86_64__)
  return __builtin_ia32_rdtsc();
#elif defined(__aarch64__)
  Vel::U64 count;
  asm volatile("mrs %0, cntvct_el0" : "=r"(count));
  return count;
#else
  return clockNanoseconds(CLOCK_MONOTONIC);
#endif
}

}  // namespace Scrivo
