// SPDX-License-Identifier: Apache-2.0
// What the status and the record of received entries show to the message machine alone. Not part of the
// library's interface.
#pragma once

#include "pim/joinprune/JoinPruneStatus.h"

namespace Routing::Pim {

template <>
struct EngineAccess<JoinPruneStatus> {
  /// The message machine that was started on this last, unless it was destroyed since. The data sets are its
  /// own: an earlier one, which an agent may still hold or which is just going, removes none of them.
  static void const* machine(JoinPruneStatus const& status) { return status.machine_; }
  static void machineIs(JoinPruneStatus& status, void const* machine) { status.machine_ = machine; }
};

template <>
struct EngineAccess<JoinPruneMessageInfo> {
  using Info = JoinPruneMessageInfo;

  /// Sets `riKey` to a route on no interface; for received entries, which come in great numbers.
  static void routeIs(Info& info, Dova::IpGenAddr const& source, Dova::IpGenAddr const& group) {
    if (info.riKey_.routeIs(source, group))
      info.velDeliver<Info::NotifieeConst, Info::riKeyId>([](Info::NotifieeConst& r) { r.onRiKey(); });
  }

  /// True if no reactor watches, so that none is told of what is written before the last of many entries.
  static bool unheard(Info const& info) { return !info.velWatched(); }

  /// Becomes what the joins of a group leave, which came in a message for `upstreamNeighbor`: as if each of
  /// them had been written. REQUIRES: there is a source, and no reactor watches.
  static void joinsAre(Info& info, Dova::IpGenAddr const& upstreamNeighbor, Seconds holdTime,
                       Dova::IpGenAddr const& group, Vel::HashSet<Dova::IpGenAddr> const& sources) {
    Vel::HashSet<Dova::IpGenAddr>::Cursor source;
    source.first(sources);
    for (U32 left = sources.size(); --left != 0;) source.next(sources);
    info.upstreamNeighbor_ = upstreamNeighbor;
    info.holdTime_ = holdTime;
    info.riKey_.routeIs(source.key(), group);
    info.sourceFlags_ = Packet::sgFlags;
    info.rxCount_ += sources.size();
  }
};

}  // namespace Routing::Pim
