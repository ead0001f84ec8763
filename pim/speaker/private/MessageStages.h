// SPDX-License-Identifier: Apache-2.0
// The order of a group's entries in messages, and a place in it. Not part of the library's interface.
#pragma once

#include <array>
#include <cstddef>
#include <optional>

#include "pim/model/packet/GroupEntries.h"
#include "pim/model/packet/JoinPruneMessage.h"
#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Speaker::Detail {

using Dova::AddressFamily;
using Dova::IpGenAddr;
using Data = Packet::JoinPruneData;
using GroupData = Packet::JoinPruneGroupData;
using MessageReport = Packet::JoinPruneMessage::Report;

// RFC 7761, 4.9.1: an encoded group or source has four bytes beside its address; a group set has two counts
// of two bytes behind its group.
inline std::size_t sourceSize(AddressFamily family) { return 4 + IpGenAddr::zero(family).width() / 8u; }
inline std::size_t groupSize(AddressFamily family) { return sourceSize(family) + 4; }

// A group's entries in the order in which they go into messages: the (*,G) entry, join or prune, and then the
// sources. The (S,G,rpt) prunes come next to the (*,G) join that takes them along, so that a walk that is
// resumed behind both meets neither again.
inline constexpr std::array<EntryKind, 5> stages = {EntryKind::wildcardJoin, EntryKind::sourceRptPrune,
                                                    EntryKind::sourceJoin, EntryKind::sourceRptJoin,
                                                    EntryKind::sourcePrune};
inline constexpr U8 wildcardStage = 0, rptPruneStage = 1;

// Where a message ended: in a group, in a stage, behind a source (at the stage's beginning without one). The
// keys need not be there any more.
struct Position {
  IpGenAddr group;
  U8 stage = wildcardStage;
  std::optional<IpGenAddr> after;
};

}  // namespace Routing::Pim::Speaker::Detail
