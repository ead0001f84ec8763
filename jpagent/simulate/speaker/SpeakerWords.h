// SPDX-License-Identifier: Apache-2.0
// The commands of a conversation with a speaker.
#pragma once

#include "jpagent/simulate/CommandTable.h"

namespace Routing::Pim::Jpagent {

/// What follows `speaker`, which begins such a conversation.
Command speaker(Words& words);

/// The table of all commands that may follow it.
std::span<Form const> speakerForms();

}  // namespace Routing::Pim::Jpagent
