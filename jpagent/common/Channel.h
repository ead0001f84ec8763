// SPDX-License-Identifier: Apache-2.0
// The three sets of joins and prunes that an upstream target has.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent {

/// What a set of joins and prunes is sent as.
enum class Channel : Vel::U8 { triggered, override, periodic };
inline constexpr std::array<std::string_view, 3> channelNames = {"triggered", "override", "periodic"};
constexpr std::string_view text(Channel channel) { return channelNames[static_cast<std::size_t>(channel)]; }

}  // namespace Routing::Pim::Jpagent
