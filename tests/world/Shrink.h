// SPDX-License-Identifier: Apache-2.0
// Sequences of operations that fail: run apart from this process, so that a crash is a failure like any
// other, and made short.
#pragma once

#include <functional>
#include <string>

#include "tests/world/Operation.h"

namespace Routing::Pim::Worlds {

using Sequence = std::vector<Operation>;

/// Calls `work` in a copy of this process that has a time to live. Gives what `work` returns, or how the copy
/// ended. What leaks in it is an end of its own kind.
std::string apart(std::function<std::string()> const& work, U32 seconds);

/// Performs the operations in a world of their own. Empty, or the first difference, after which nothing is
/// done.
std::string difference(Sequence const& operations);

/// A short sequence that fails, made from one that fails by leaving out what is not needed: chunks first,
/// then single operations, then the details of those that remain.
Sequence shrunk(Sequence operations, std::function<bool(Sequence const&)> const& fails);

}  // namespace Routing::Pim::Worlds
