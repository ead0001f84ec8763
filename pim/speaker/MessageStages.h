// The order of a group's entries in messages, and a place in it. Not part of the library's interface.
#pragma once

#include <cstddef>
#include <optional>

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

// A group's entries in the order in which they go into messages. The (S,G,rpt) prunes come next to the (*,G)
// entry that takes them along, so that a walk that is resumed behind both meets neither again.
enum class Stage : U8 { wildcard, prunedRptSources, joinedSources, joinedRptSources, prunedSources, end };

inline Stage next(Stage stage) { return static_cast<Stage>(static_cast<U8>(stage) + 1); }

inline bool isJoin(Stage stage) { return stage == Stage::joinedSources || stage == Stage::joinedRptSources; }

inline Wire::SourceKind kindOf(Stage stage) {
  return stage == Stage::joinedSources || stage == Stage::prunedSources ? Wire::SourceKind::source
                                                                        : Wire::SourceKind::sourceRpt;
}

// Where a message ended: in a group, in a stage, behind a source (at the stage's beginning without one). The
// keys need not be there any more.
struct Position {
  IpGenAddr group;
  Stage stage = Stage::wildcard;
  std::optional<IpGenAddr> after;
};

inline void remove(GroupData& group, Stage stage, IpGenAddr const& source) {
  switch (stage) {
    case Stage::prunedRptSources:
      group.prunedRptSourceDel(source);
      break;
    case Stage::joinedSources:
      group.joinedSourceDel(source);
      break;
    case Stage::joinedRptSources:
      group.joinedRptSourceDel(source);
      break;
    case Stage::prunedSources:
      group.prunedSourceDel(source);
      break;
    case Stage::wildcard:
    case Stage::end:
      break;
  }
}

}  // namespace Routing::Pim::Speaker::Detail
