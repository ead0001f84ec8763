// SPDX-License-Identifier: Apache-2.0
// A run of `jpagent replay`, from the capture to the exit status.
#pragma once

#include "jpagent/replay/Replay.h"

namespace Routing::Pim::Jpagent {

/// Hands the capture's messages to the engine; entries, refusals and totals are told to `report`. Returns the
/// exit status. Throws CaptureError or OutputError if the run cannot begin.
int runReplay(std::string const& file, ReplayOptions const& options, Report& report);

}  // namespace Routing::Pim::Jpagent
