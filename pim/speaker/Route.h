// SPDX-License-Identifier: Apache-2.0
// Routes as the speaker names them.
#pragma once

#include <functional>
#include <string>

#include "pim/model/RouteKey.h"
#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Speaker {

using Dova::IpGenAddr;

/// What a route is: an (S,G), a (*,G), or an (S,G,rpt).
enum class RouteKind : U8 { source, wildcard, sourceRpt };

/// The route of an entry.
constexpr RouteKind routeKindOf(EntryKind kind) {
  constexpr RouteKind kinds[] = {RouteKind::source, RouteKind::wildcard, RouteKind::sourceRpt};
  return kinds[indexOf(kind) / 2];
}
/// The entry that joins or prunes such a route.
constexpr EntryKind entryKindOf(RouteKind kind, bool isJoin) {
  constexpr EntryKind joins[] = {EntryKind::sourceJoin, EntryKind::wildcardJoin, EntryKind::sourceRptJoin};
  EntryKind const join = joins[static_cast<std::size_t>(kind)];
  return isJoin ? join : opposite(join);
}

/// A (*,G), an (S,G) or an (S,G,rpt).
struct Route {
  RouteKind kind = RouteKind::source;  ///< Which of the three.
  IpGenAddr source;                    ///< The source; of a (*,G) the family's address of all zeros.
  IpGenAddr group;                     ///< The group.

  /// The (*,G) of a group.
  static Route wildcard(IpGenAddr const& group) {
    return {RouteKind::wildcard, IpGenAddr::zero(group.af()), group};
  }

  friend bool operator==(Route const& a, Route const& b) = default;
  /// By group, then (S,G), (*,G), (S,G,rpt), then by source.
  friend bool operator<(Route const& a, Route const& b) {
    if (!(a.group == b.group)) return a.group < b.group;
    return a.kind != b.kind ? a.kind < b.kind : a.source < b.source;
  }
};

/// "(10.0.0.1,239.1.1.1)", "(*,239.1.1.1)", "(10.0.0.1,239.1.1.1,rpt)".
PIM_SPEAKER_API std::string toText(Route const& route);

}  // namespace Routing::Pim::Speaker

/// The hash of collections, for those of the standard library.
template <>
struct std::hash<Routing::Pim::Speaker::Route> {
  std::size_t operator()(Routing::Pim::Speaker::Route const& route) const noexcept {
    return Vel::hashCombine(route.source.hash(), route.group.hash()) + static_cast<std::size_t>(route.kind);
  }
};
