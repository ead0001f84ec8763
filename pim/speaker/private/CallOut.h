// SPDX-License-Identifier: Apache-2.0
// Calls of a user's code that must not throw into the speaker.
#pragma once

#include <exception>

#include "runtime/vel/Trace.h"

namespace Routing::Pim::Speaker {

/// Calls, and traces what is thrown (handle "Vel", level 1), in the name of a class and one of its functions.
/// The call and the trace sink may do anything: REQUIRES that the caller asks afterwards what is still there.
template <class Call>
void callOut(char const* source, char const* function, Call const& call) {
  try {
    call();
  } catch (std::exception const& error) {
    VEL_TRACE(Vel::frameTrace(), Vel::TraceLevel::error, source, function, error.what());
  } catch (...) {
    VEL_TRACE(Vel::frameTrace(), Vel::TraceLevel::error, source, function, "an unknown exception");
  }
}

}  // namespace Routing::Pim::Speaker
