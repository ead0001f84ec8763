// SPDX-License-Identifier: Apache-2.0
// The three sets of joins and prunes that an upstream target has.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent {

/// What a set of joins and prunes is sent as.
enum class SendKind : Vel::U8 { triggered, override, periodic };
inline constexpr std::array<std::string_view, 3> sendKindNames = {"triggered", "override", "periodic"};
constexpr std::string_view text(SendKind sendKind) {
  return sendKindNames[static_cast<std::size_t>(sendKind)];
}

}  // namespace Routing::Pim::Jpagent
