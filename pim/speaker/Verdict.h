// SPDX-License-Identifier: Apache-2.0
// What became of a packet that a speaker received.
#pragma once

#include <array>
#include <string_view>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Speaker {

/// What a speaker did with a packet. Only the first three were delivered.
enum class Verdict : Vel::U8 {
  hello,             ///< A Hello, taken.
  joinPrune,         ///< A Join/Prune for this router.
  heard,             ///< A Join/Prune from one neighbor to another.
  refused,           ///< It breaks a rule of the wire; the refusal says which.
  stranger,          ///< A Join/Prune from an address that has sent no Hello (RFC 7761, 4.3.1).
  tooManyNeighbors,  ///< A Hello of another router than those that there is room for.
  ownPacket,         ///< The source is an address of the interface: one's own packet came back.
  otherType,         ///< PIM version 2 of another type.
  unknownInterface,  ///< There is no such interface.
  noLink,            ///< The interface has no primary address of the packet's family.
};

/// The fixed texts, in the order of the enumeration.
inline constexpr std::array<std::string_view, 10> verdictNames = {
    "Hello",
    "Join/Prune",
    "Join/Prune for another router",
    "refused",
    "not from a neighbor",
    "too many neighbors",
    "own packet",
    "another type",
    "unknown interface",
    "no primary address of the family",
};
static_assert(verdictNames.size() == static_cast<std::size_t>(Verdict::noLink) + 1);

/// The verdict's fixed text.
constexpr std::string_view text(Verdict verdict) { return verdictNames[static_cast<std::size_t>(verdict)]; }

}  // namespace Routing::Pim::Speaker
