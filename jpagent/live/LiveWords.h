// SPDX-License-Identifier: Apache-2.0
// The commands of `jpagent run`.
#pragma once

#include "jpagent/simulate/CommandTable.h"

namespace Routing::Pim::Jpagent::Live {

/// The table. What its parsers return is performed by a LiveSpeaker alone.
OwnForms liveForms();

/// The forms of all commands with a few words on each, for help texts.
std::string liveCommandReference();

}  // namespace Routing::Pim::Jpagent::Live
