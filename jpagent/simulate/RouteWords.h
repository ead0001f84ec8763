// SPDX-License-Identifier: Apache-2.0
// Routes in the words of a command.
#pragma once

#include "jpagent/simulate/Words.h"

namespace Routing::Pim::Jpagent {

/// "join ROUTE... prune ROUTE...", one at the least, to the end of the line.
Routes takeEntries(Words& words);

/// A route, or "N routes from ROUTE" or "N sources from ROUTE". A (*,G) whose RP is optional and left out has
/// an RP of unknown family.
RouteRange takeRoutes(Words& words, bool join, bool rpIsOptional = false);

}  // namespace Routing::Pim::Jpagent
