// SPDX-License-Identifier: Apache-2.0
// The jobs of Instructions.cpp, done by the plain engine. They are compiled apart, so that a change of that
// engine does not change what the compiler makes of the library's own scenarios.
#pragma once

#include <functional>

#include "bench/Receiver.h"

namespace Bench {

/// What counts. It is called once and holds what it needs.
using Body = std::function<void()>;

/// From being wanted to being sent.
Body plainRoutesSent(U32 size);
/// A thousand routes are added and removed among those that stay.
Body plainPeriodicRoutes(U32 staying);
/// One round.
Body plainRefresh(U32 size);
/// 20 neighbors with 50 routes each.
Body plainStartUp();
/// 20 messages.
Body plainReceive(Shape const& shape, int observers);

}  // namespace Bench
