// SPDX-License-Identifier: Apache-2.0
// A sequence of operations as a conversation for conversation_runner (tests/conversations/own).
#pragma once

#include <string_view>

#include "tests/world/Shrink.h"

namespace Routing::Pim::Worlds {

/// The story, and a command for each operation that does anything. The clock, the random generator and the
/// packet manager are those of the world, so that the same happens.
std::string asConversation(std::string_view story, Sequence const& operations);

}  // namespace Routing::Pim::Worlds
