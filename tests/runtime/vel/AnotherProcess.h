// SPDX-License-Identifier: Apache-2.0
// Tests of what belongs to a whole process.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "runtime/vel/Hash.h"
#include "tests/AnotherProcess.h"

namespace Vel {

// What a process of its own says: a seed belongs to the whole process, and is set before the first hash.
inline std::string inAnotherProcess(std::optional<U64> seed, std::function<std::string()> const& tell) {
  Ended const ended = inACopy([&](int end) {
    if (seed) hashSeedIs(*seed);
    say(end, tell());
  });
  return ended.status == 0 ? ended.said : "the other process failed";
}

}  // namespace Vel
