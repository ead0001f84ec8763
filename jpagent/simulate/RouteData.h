// SPDX-License-Identifier: Apache-2.0
// Single routes in the data of the model.
#pragma once

#include <vector>

#include "jpagent/simulate/Routes.h"
#include "pim/model/packet/JoinPruneData.h"

namespace Routing::Pim::Jpagent {

/// In the order of the message.
std::vector<RouteEntry> entriesOf(Wire::JoinPrune const& message);

/// In ascending order of the groups, and in each group by kind and source.
std::vector<RouteEntry> entriesOf(Packet::JoinPruneData const& data);

}  // namespace Routing::Pim::Jpagent
