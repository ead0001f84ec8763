// SPDX-License-Identifier: Apache-2.0
// The tracepoints of the LTTng-UST peer; lttng/tracepoint-event.h includes this file several times. The
// arguments are the cheapest form of what the ring message takes: an address as one integer, a short text, a
// number.
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER joinprune_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "bench/LttngProvider.h"

#if !defined(JOINPRUNE_BENCH_LTTNG_PROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define JOINPRUNE_BENCH_LTTNG_PROVIDER_H

#include <lttng/tracepoint.h>

#include <cstdint>

LTTNG_UST_TRACEPOINT_EVENT(joinprune_bench, message,
                           LTTNG_UST_TP_ARGS(std::uint32_t, neighbor, char const*, intf, int, groups),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer_hex(std::uint32_t, neighbor, neighbor)
                                                   lttng_ust_field_string(intf, intf)
                                                       lttng_ust_field_integer(int, groups, groups)))

#endif

#include <lttng/tracepoint-event.h>
