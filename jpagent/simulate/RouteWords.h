// Routes in the words of a command.
#pragma once

#include "jpagent/simulate/Words.h"

namespace Routing::Pim::Jpagent {

/// "join ROUTE... prune ROUTE...", one at the least, to the end of the line.
Routes takeEntries(Words& words);

}  // namespace Routing::Pim::Jpagent
