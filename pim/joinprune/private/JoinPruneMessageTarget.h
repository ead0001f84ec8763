// SPDX-License-Identifier: Apache-2.0
// How the message machine makes and removes what belongs to an upstream target. Not part of the library's
// interface.
#pragma once

#include "pim/joinprune/JoinPruneMessageSm.h"

namespace Routing::Pim {

// What a neighbor machine is made with. Making each set calls out, and what is called may take the target
// away or make it himself; so each step asks whether it is still wanted.
struct JoinPruneMessageSm::Target {
  Vel::Ptr<Packet::JoinPruneData> triggered;
  Vel::Ptr<Packet::JoinPruneData> override;
  Vel::Ptr<Packet::JoinPruneData> periodic;
};

// False if the target was not wanted any more on the way.
template <class Wanted>
bool JoinPruneMessageSm::openTarget(Target& target, Dova::IpGenAddr const& address, Wanted const& wanted) {
  if (!joinPruneStatus_ || !wanted()) return wanted();
  // Somebody may remove a set while another is made; what is there already is found without calling out, so
  // that the second round mostly is the last. A callback that removes them each time gets no machine.
  for (int round = 0; round < 4; ++round) {
    target.triggered = joinPruneStatus_->triggeredGroupIs(address);
    if (!wanted()) return false;
    target.override = joinPruneStatus_->overrideGroupIs(address);
    if (!wanted()) return false;
    Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus();
    target.periodic = periodic ? periodic->upJoinPruneIs(address) : nullptr;
    if (!wanted()) return false;
    if (joinPruneStatus_->triggeredGroup(address) == target.triggered &&
        joinPruneStatus_->overrideGroup(address) == target.override && periodicStatus() == periodic &&
        (!periodic || periodic->upJoinPrune(address) == target.periodic))
      return true;
  }
  return false;
}

// Removes a target's machine and data sets, as long as no callback takes the target up again.
template <class Wanted>
void JoinPruneMessageSm::closeTarget(Dova::IpGenAddr const& address, Wanted const& wanted) {
  auto const stays = [&] { return wanted() || succeeded(); };
  removeJoinPruneNeighborSm(address);
  if (stays()) return;
  if (joinPruneStatus_) joinPruneStatus_->triggeredGroupDel(address);
  if (stays()) return;
  if (joinPruneStatus_) joinPruneStatus_->overrideGroupDel(address);
  if (stays()) return;
  if (Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus()) periodic->upJoinPruneDel(address);
}

}  // namespace Routing::Pim
