// SPDX-License-Identifier: Apache-2.0
// The kinds of entry that Join/Prune messages have. The lowest header of pim/: the wire form, the model and
// all that is above them name entries by it.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "runtime/vel/Types.h"

namespace Routing::Pim {

/// What an entry of a group asks for (RFC 7761, 4.9.5): a join or a prune of (S,G), of (*,G), whose address
/// is the RP, or of (S,G,rpt). In the order in which a group's entries are walked, recorded and shown.
enum class EntryKind : Vel::U8 {
  sourceJoin,
  sourcePrune,
  wildcardJoin,
  wildcardPrune,
  sourceRptJoin,
  sourceRptPrune
};

/// All kinds, in their order.
inline constexpr std::array<EntryKind, 6> entryKinds = {EntryKind::sourceJoin,    EntryKind::sourcePrune,
                                                        EntryKind::wildcardJoin,  EntryKind::wildcardPrune,
                                                        EntryKind::sourceRptJoin, EntryKind::sourceRptPrune};

/// The bits of an encoded source's flags (RFC 7761, 4.9.1).
namespace EntryFlags {
inline constexpr Vel::U8 sparse = 0x4;    ///< S: always set in PIM version 2.
inline constexpr Vel::U8 wildcard = 0x2;  ///< W: the address is the RP, and the entry is for (*,G).
inline constexpr Vel::U8 rpt = 0x1;       ///< R: the entry is for the tree of the RP.
}  // namespace EntryFlags

/// What is known of a kind.
struct EntryKindRow {
  std::string_view text;    ///< "(S,G,rpt) prune".
  std::string_view route;   ///< "(S,G,rpt)".
  std::string_view action;  ///< "prune".
  Vel::U8 flags;            ///< On the wire.
};

/// A row for each kind, in their order.
inline constexpr std::array<EntryKindRow, entryKinds.size()> entryKindRows = {{
    {"(S,G) join", "(S,G)", "join", EntryFlags::sparse},
    {"(S,G) prune", "(S,G)", "prune", EntryFlags::sparse},
    {"(*,G) join", "(*,G)", "join", EntryFlags::sparse | EntryFlags::wildcard | EntryFlags::rpt},
    {"(*,G) prune", "(*,G)", "prune", EntryFlags::sparse | EntryFlags::wildcard | EntryFlags::rpt},
    {"(S,G,rpt) join", "(S,G,rpt)", "join", EntryFlags::sparse | EntryFlags::rpt},
    {"(S,G,rpt) prune", "(S,G,rpt)", "prune", EntryFlags::sparse | EntryFlags::rpt},
}};

/// The kind's place in a table that has one for each.
constexpr std::size_t indexOf(EntryKind kind) { return static_cast<std::size_t>(kind); }
/// "(S,G) join".
constexpr std::string_view text(EntryKind kind) { return entryKindRows[indexOf(kind)].text; }
/// "(S,G)", the same for join and prune.
constexpr std::string_view routeText(EntryKind kind) { return entryKindRows[indexOf(kind)].route; }
/// "join" or "prune".
constexpr std::string_view actionText(EntryKind kind) { return entryKindRows[indexOf(kind)].action; }

/// Whether it is a join.
constexpr bool isJoin(EntryKind kind) { return (static_cast<Vel::U8>(kind) & 1) == 0; }
/// Whether it is a join or prune of (*,G).
constexpr bool isWildcard(EntryKind kind) {
  return kind == EntryKind::wildcardJoin || kind == EntryKind::wildcardPrune;
}
/// The prune for a join, the join for a prune.
constexpr EntryKind opposite(EntryKind kind) {
  return static_cast<EntryKind>(static_cast<Vel::U8>(kind) ^ 1);
}
/// The join of the same route.
constexpr EntryKind joinOf(EntryKind kind) { return isJoin(kind) ? kind : opposite(kind); }
/// The prune of the same route.
constexpr EntryKind pruneOf(EntryKind kind) { return opposite(joinOf(kind)); }

/// The S, W and R bits of a kind.
constexpr Vel::U8 flagsOf(EntryKind kind) { return entryKindRows[indexOf(kind)].flags; }
/// The kind that has these flags in the list of joins, or in that of prunes. W wins over R; S does not
/// matter.
constexpr EntryKind entryKindOf(Vel::U8 flags, bool join) {
  using enum EntryKind;
  constexpr EntryKind kinds[2][4] = {{sourcePrune, sourceRptPrune, wildcardPrune, wildcardPrune},
                                     {sourceJoin, sourceRptJoin, wildcardJoin, wildcardJoin}};
  return kinds[join][flags & (EntryFlags::wildcard | EntryFlags::rpt)];
}

}  // namespace Routing::Pim
