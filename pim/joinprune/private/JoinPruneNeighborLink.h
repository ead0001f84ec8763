// SPDX-License-Identifier: Apache-2.0
// What the message machine and its neighbor machines ask of each other. Not part of the library's interface.
#pragma once

#include "pim/model/Neighbor.h"
#include "pim/model/io/PamManager.h"
#include "runtime/zanth/TimerWheel.h"

namespace Routing::Pim {

class JoinPruneMessageSm;
class JoinPruneNeighborSm;

/// The owner's form, which is the text of the attribute `parentSm`.
VEL_API std::ostream& operator<<(std::ostream& os, JoinPruneMessageSm const* sm);

/// What a neighbor machine is made with; see joinPruneNeighborSmFactory().
struct JoinPruneNeighborInputs {
  JoinPruneMessageSm* parentSm;
  Dova::IpGenAddr neighborAddr;
  Vel::Ptr<Neighbor const> neighbor;
  Vel::Ptr<Intf const> intf;
  Vel::Ptr<Packet::JoinPruneData> triggeredGroup;
  Vel::Ptr<Packet::JoinPruneData> overrideGroup;
  Vel::Ptr<Packet::JoinPruneData> periodicGroup;
  Vel::Ptr<Zanth::TimerWheel> timerWheel;
  Seconds overrideInterval;
  Vel::Ptr<IO::PamManager> pimPamManager;
  Vel::Ptr<Packet::JoinPruneMessage> txMessage;
};

/// All that passes between the two machines beside their attributes.
class JoinPruneNeighborLink {
 public:
  // What a neighbor machine asks of its owner.

  /// The neighbor's periodic data has run empty: removes the machine if it is not needed any more.
  static void maybeDeleteNeighbor(JoinPruneMessageSm& owner, Dova::IpGenAddr const& neighborAddr);
  /// Whether neighbor machines check their route counts against their data.
  static bool checksRouteCounts(JoinPruneMessageSm const& owner);

  // What the owner asks of a neighbor machine.

  /// Makes one that is not started. An override interval that is NaN or negative throws
  /// Vel::InvalidArgumentException.
  static Vel::Ptr<JoinPruneNeighborSm> construct(JoinPruneNeighborInputs const& inputs);
  /// The second half of construction, apart because it calls out: follows each group that is there, then
  /// handleInitialized(). The owner has put the machine into its collection before, so that what is
  /// called can find it, and take it away.
  static void start(JoinPruneNeighborSm& sm);
  /// Ends the machine, which its owner has removed. `references`: how many of those on it are the owner's.
  static void retire(JoinPruneNeighborSm& sm, U32 references = 1);
};

}  // namespace Routing::Pim
