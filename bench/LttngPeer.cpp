// SPDX-License-Identifier: Apache-2.0
// The LTTng-UST peer of Ring.cpp, in a module of its own that is loaded when it is measured: the library
// starts threads when it is loaded, and a process with threads allocates memory more slowly, which is no
// matter of ours.
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "bench/LttngProvider.h"

/// Whether a session records the messages.
extern "C" [[gnu::visibility("default")]] bool lttngMessageActive() {
  return lttng_ust_tracepoint_enabled(joinprune_bench, message) != 0;
}

extern "C" [[gnu::visibility("default")]] void lttngMessages(std::uint32_t neighbor, char const* intf,
                                                             int rounds) {
  for (int i = 0; i < rounds; ++i) lttng_ust_tracepoint(joinprune_bench, message, neighbor, intf, i);
}
