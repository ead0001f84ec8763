// SPDX-License-Identifier: Apache-2.0
// The commands on what is pending for an upstream target, and on what is received.
#include <set>
#include <tuple>

#include "jpagent/common/RingMessages.h"
#include "jpagent/simulate/Inside.h"
#include "jpagent/simulate/RouteData.h"
#include "pim/model/packet/GroupEntries.h"
#include "pim/speaker/Conversion.h"

namespace Routing::Pim::Jpagent {

namespace {

// "remove join (10.9.0.1,239.1.1.1)" for one that is removed, the entry alone for one that is added.
std::string changeText(Change change, RouteEntry const& entry) {
  return (change == Change::remove ? "remove " : "") + toText(entry);
}

}  // namespace

// All or nothing: what cannot be removed is found before anything is.
void Simulation::refuseUnlessAllAreThere(Packet::JoinPruneData const& data, DataCommand const& command) {
  std::set<std::tuple<EntryKind, IpGenAddr, IpGenAddr>> removed;
  bool const mayRepeat = command.entries.ranges().size() > 1;
  for (auto const& entry : command.entries) {
    auto const group = data.joinPruneGroupData(entry.group);
    if (!group || !Packet::hasEntry(*group, entry.kind, entry.source))
      refuse("{} has no {} {}", toText(command.target), text(command.sendKind), toText(entry));
    if (mayRepeat && !removed.emplace(entry.kind, entry.source, entry.group).second)
      refuse("{} has no second {} {}", toText(command.target), text(command.sendKind), toText(entry));
  }
}

// A data set is made, or removed with all that is in it.
void Simulation::makeData(SendKind sendKind, IpGenAddr const& target) {
  switch (sendKind) {
    case SendKind::triggered:
      status_->triggeredGroupIs(target);
      return;
    case SendKind::override:
      status_->overrideGroupIs(target);
      return;
    case SendKind::periodic:
      status_->periodicGroupStatus()->upJoinPruneIs(target);
      return;
  }
}

void Simulation::removeData(SendKind sendKind, IpGenAddr const& target) {
  switch (sendKind) {
    case SendKind::triggered:
      status_->triggeredGroupDel(target);
      return;
    case SendKind::override:
      status_->overrideGroupDel(target);
      return;
    case SendKind::periodic:
      status_->periodicGroupStatus()->upJoinPruneDel(target);
      return;
  }
}

// Where there is a machine, emptied groups are its own to remove.
void Simulation::retireGroup(Packet::JoinPruneData& data, IpGenAddr const& target,
                             Packet::JoinPruneGroupData const& group) {
  if (group.empty() && !(machine_ && machine_->joinPruneNeighborSm(target)))
    data.joinPruneGroupDataDel(group.group());
}

void Simulation::removeEntries(Packet::JoinPruneData& data, DataCommand const& command) {
  refuseUnlessAllAreThere(data, command);
  for (auto const& entry : command.entries) {
    auto const group = data.joinPruneGroupData(entry.group);
    Packet::removeEntry(*group, entry.kind, entry.source);
    retireGroup(data, command.target, *group);
  }
}

void Simulation::removeWildcard(Packet::JoinPruneData& data, DataCommand const& command) {
  auto const group = data.joinPruneGroupData(command.group);
  if (!group || !group->wcSourceData())
    refuse("{} has no {} (*,{})", toText(command.target), text(command.sendKind), toText(command.group));
  group->wcSourceDataDel();
  retireGroup(data, command.target, *group);
}

void Simulation::change(Packet::JoinPruneData& data, DataCommand const& command) {
  switch (command.change) {
    case Change::make:
      break;
    case Change::gone:
      return removeData(command.sendKind, command.target);
    case Change::group:
      data.joinPruneGroupDataIs(command.group);
      break;
    case Change::ungroup:
      data.joinPruneGroupDataDel(command.group);
      break;
    case Change::add:
      for (auto const& entry : command.entries)
        Packet::addEntry(*data.joinPruneGroupDataIs(entry.group), entry.kind, entry.source);
      break;
    case Change::remove:
      return removeEntries(data, command);
    case Change::removeWildcard:
      return removeWildcard(data, command);
  }
}

// What is to be changed. Refused if there is no such data set, or if the change costs too much.
Vel::Ptr<Packet::JoinPruneData> Simulation::changingData(DataCommand const& command) {
  touched_.insert(command.target);
  auto const data = dataOf(command.target)[static_cast<std::size_t>(command.sendKind)];
  if (!data) refuse("{} is no upstream target", toText(command.target));
  if (Scrivo::TraceFile::current() != nullptr && !command.entries.empty()) {
    RingMessages::ofSendKind(command.sendKind, [&]<SendKind one>() {
      RingMessages::changed<one>(command.target, changeText(command.change, *command.entries.begin()),
                                 command.entries.size());
    });
  }
  if (command.sendKind == SendKind::periodic && machine_ && machine_->diagUpJoinCount()) {
    // The check of each route looks at all groups.
    lookedAt_ += command.entries.size() * (data->joinPruneGroupDataCount() + command.entries.size());
    refuseIfLookedAtTooMuch();
  }
  return data;
}

void Simulation::on(DataCommand const& command) {
  if (command.change == Change::make) {
    touched_.insert(command.target);
    return makeData(command.sendKind, command.target);
  }
  change(*changingData(command), command);
}

void Simulation::on(ReceiveCommand const& command) {
  auto const intf = knownIntf(command.intf);
  RingMessages::received(command.intf, entriesOf(command.message).size());
  for (auto const& message : Speaker::modelMessages(command.message)) {
    channel_->joinPruneMessageIs(message);
    channel_->intfIdIs(intf->intfId());
    channel_->countInc(1);
  }
}

}  // namespace Routing::Pim::Jpagent
