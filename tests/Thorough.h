// SPDX-License-Identifier: Apache-2.0
// How much of a long test is run: a share of its cases by scripts/test, all of them by scripts/prove.
#pragma once

#include <cstdlib>

namespace Routing {

/// True if the environment has a JOINPRUNE_THOROUGH that is not empty, as scripts/prove sets it.
inline bool thorough() {
  char const* const text = std::getenv("JOINPRUNE_THOROUGH");
  return text && *text;
}

}  // namespace Routing
