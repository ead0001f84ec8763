// SPDX-License-Identifier: Apache-2.0
// The performance of a recording.
#pragma once

#include <iosfwd>

#include "jpagent/live/LiveSpeaker.h"
#include "jpagent/simulate/SimulateRun.h"

namespace Routing::Pim::Jpagent::Live {

/// Recordings for `jpagent simulate`. A performance seeds the process, so REQUIRES that no hash table has an
/// element yet.
OtherConversations recordings();

}  // namespace Routing::Pim::Jpagent::Live
