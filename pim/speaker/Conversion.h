// SPDX-License-Identifier: Apache-2.0
// From the wire's order to the model's sets.
#pragma once

#include <vector>

#include "pim/model/packet/JoinPruneMessage.h"
#include "pim/wire/Export.h"
#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Speaker {

using Dova::IpGenAddr;

/// The model messages that say, one after another, what a wire message says.
///
/// Mostly there is one. But a model message has each group once, each source once in a list of a group, and
/// one
/// (*,G) entry in a group, while the wire repeats what it likes, and what comes later counts. So an entry
/// that does not fit begins another message, and so does a group that comes again: nothing is lost, and of
/// two entries for one route the later one is delivered later.
PIM_SPEAKER_API std::vector<Vel::Ptr<Packet::JoinPruneMessage>> modelMessages(Wire::JoinPrune const& message);

}  // namespace Routing::Pim::Speaker
