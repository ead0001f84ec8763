// SPDX-License-Identifier: Apache-2.0
// How the machines of this folder trace. Not part of the library's interface.
#pragma once

#include "runtime/scrivo/Scrivo.h"
#include "runtime/vel/Trace.h"
#include "runtime/vel/private/Assert.h"

namespace Routing::Pim {

/// The name that traces, ring messages and assertions give as their source.
#define JOIN_PRUNE_SOURCE "JoinPruneSm"

namespace Level = Vel::TraceLevel;

/// The library's trace handle.
inline Vel::TraceHandle& joinPruneTrace() {
  static Vel::TraceHandle& handle = Vel::TraceHandle::find("Pim::JoinPrune");
  return handle;
}

/// True if no handler writes anything but events and errors: no line of activity or entry, and no block
/// timer. What such a line could call is then not called.
inline bool joinPruneIsQuiet() {
  return !joinPruneTrace().wanted(Level::activity) && !joinPruneTrace().wanted(Level::entry) &&
         !Scrivo::TraceFile::current();
}

/// A trace line: the subject's form, the function's name and the pieces, without separators.
#define JOIN_PRUNE_TRACE_AS(level, subject, function, pieces)                     \
  VEL_TRACE(::Routing::Pim::joinPruneTrace(), level, JOIN_PRUNE_SOURCE, function, \
            (subject) << velFunction << pieces)

/// The same from a function that is known by its own name.
#define JOIN_PRUNE_TRACE(level, subject, pieces) JOIN_PRUNE_TRACE_AS(level, subject, __func__, pieces)

/// A line without a subject.
#define JOIN_PRUNE_TRACE_BARE(level, pieces) \
  VEL_TRACE(::Routing::Pim::joinPruneTrace(), level, JOIN_PRUNE_SOURCE, __func__, velFunction << pieces)

/// Stops the process, as VEL_ASSERT does, in the name of a function that calls this one.
#define JOIN_PRUNE_ASSERT_AS(signature, expression) \
  (static_cast<bool>(expression) ? void(0)          \
                                 : __assert_fail(#expression, JOIN_PRUNE_SOURCE, __LINE__, signature))

/// A signature as it was declared in its class, without the "virtual" that some compilers put before it.
/// The array's length is part of its type, so all of this is done at compile time.
template <std::size_t size>
constexpr char const* plainSignature(char const (&pretty)[size]) {
  std::string_view constexpr prefix = "virtual ";
  return std::string_view(pretty, size - 1).starts_with(prefix) ? pretty + prefix.size() : pretty;
}

#define JOIN_PRUNE_BLOCK_TIMER() \
  SCRIVO_BLOCK_TIMER(JOIN_PRUNE_SOURCE, ::Routing::Pim::plainSignature(__PRETTY_FUNCTION__))

}  // namespace Routing::Pim
