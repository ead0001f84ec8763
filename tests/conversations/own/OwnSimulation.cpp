// SPDX-License-Identifier: Apache-2.0
#include "tests/conversations/own/OwnSimulation.h"

#include <stdexcept>

#include "jpagent/simulate/Inside.h"
#include "jpagent/simulate/RouteData.h"
#include "pim/model/packet/GroupEntries.h"

namespace Routing::Pim::Jpagent {

namespace {

// A packet manager that claims to have sent what it has not would be asked for more without end while the
// clock does not advance.
constexpr U32 mostTemperedMessages = 40;

// In the order in which the data is walked, a group's (*,G) entry first.
std::vector<RouteEntry> inOrderOfWalk(Packet::JoinPruneData const& data) {
  std::vector<RouteEntry> entries;
  for (auto g = data.joinPruneGroupDataIterator(); g; ++g) {
    for (bool const wildcard : {true, false}) {
      Packet::forEachEntry(*g, [&](EntryKind kind, IpGenAddr const& address) {
        if (isWildcard(kind) == wildcard) entries.push_back({kind, address, g.key()});
      });
    }
  }
  return entries;
}

// Periodic data stays as it is. Of the other, false if the entry is not there any more.
bool takeOfTempered(Packet::JoinPruneData& data, RouteEntry const& entry) {
  if (data.periodic()) return true;
  auto const group = data.joinPruneGroupData(entry.group);
  return group && Packet::removeEntry(*group, entry.kind, entry.source);
}

// As what an entry counts that comes after `taken` others.
U32& counterOf(Packet::JoinPruneMessage::Report& report, TemperCommand const& temper, std::size_t taken) {
  return taken < temper.filtered                                    ? report.filteredSources
         : taken < std::size_t{temper.filtered} + temper.suppressed ? report.suppressedSources
                                                                    : report.sources;
}

void removeEmptyGroups(Packet::JoinPruneData& data) {
  for (auto g = data.joinPruneGroupDataIterator(); g; ++g)
    if (g->empty()) data.joinPruneGroupDataDel(g.key());
}

}  // namespace

void OwnInterfaceCommand::perform(Simulation& simulation) const {
  dynamic_cast<OwnSimulation&>(simulation).on(*this);
}
void NeighborAgainCommand::perform(Simulation& simulation) const {
  dynamic_cast<OwnSimulation&>(simulation).on(*this);
}
void OwnDataCommand::perform(Simulation& simulation) const {
  dynamic_cast<OwnSimulation&>(simulation).on(*this);
}
void TemperCommand::perform(Simulation& simulation) const {
  dynamic_cast<OwnSimulation&>(simulation).on(*this);
}

// What it throws, as a manager with that temper does, is part of the story and not an error.
class OwnSimulation::Temper final : public IO::MessageInfo::Notifiee {
 public:
  explicit Temper(OwnSimulation& simulation) : simulation_(simulation) {}
  void onCount() override { simulation_.sendTempered(*notifier()); }
  void onNotificationException(Vel::AttributeId) override {}

 private:
  OwnSimulation& simulation_;
};

OwnSimulation::OwnSimulation(std::ostream& out, Speaker::PacketSink* alsoTo, std::size_t mayLookAt)
    : Simulation(out, alsoTo, mayLookAt), temperer_(Vel::create<Temper>(*this)) {}

OwnSimulation::~OwnSimulation() {
  machineWatch_->notifierIs(nullptr);
  temperer_->notifierIs(nullptr);
}

void OwnSimulation::on(OwnInterfaceCommand const& own) {
  InterfaceCommand const& command = own.command;
  changeInterface(command);
  Dova::IntfId const id(command.name);
  if (own.again) {
    lookedAt_ += intfs_.size();
    pimStatus_->pimIntfNotify(id);
    pimStatus_->pimIntfNotifyImmediate();
  }
  if (command.down)
    pimStatus_->pimIntfDel(id);
  else if (!own.stay && !pimStatus_->pimIntf(id))
    pimStatus_->pimIntfIs(intfs_.at(command.name));
}

void OwnSimulation::on(NeighborAgainCommand const& command) {
  touched_.insert(command.address);
  pimStatus_->pimNeighborNotify(command.address);
}

void OwnSimulation::on(OwnDataCommand const& own) {
  auto const data = changingData(own.command);
  own.filled ? fill(*data, own) : again(*data, own);
}

void OwnSimulation::fill(Packet::JoinPruneData& data, OwnDataCommand const& own) {
  DataCommand const& command = own.command;
  std::vector<IpGenAddr> groups;
  for (auto const& entry : command.entries)
    if (data.joinPruneGroupData(entry.group)) refuse("group {} is there already", toText(entry.group));
  for (auto const& entry : command.entries) {
    auto group = data.joinPruneGroupData(entry.group);
    if (!group) {
      group = data.newJoinPruneGroupData(entry.group);
      groups.push_back(entry.group);
    }
    Packet::addEntry(*group, entry.kind, entry.source);
  }
  if (own.all) data.joinPruneGroupDataNotifyImmediate();
  for (auto const& group : groups)
    if (!own.all) data.joinPruneGroupDataNotify(group);
}

void OwnSimulation::again(Packet::JoinPruneData& data, OwnDataCommand const& own) {
  DataCommand const& command = own.command;
  if (command.entries.empty()) {
    lookedAt_ += data.joinPruneGroupDataCount();
    data.joinPruneGroupDataNotifyImmediate();
  }
  for (auto const& entry : command.entries) {
    auto const group = data.joinPruneGroupData(entry.group);
    if (!group) refuse("there is no group {}", toText(entry.group));
    Packet::byEntryKind(
        entry.kind,
        [&](auto sources) {
          own.all ? sources.notifyImmediate(*group) : sources.notify(*group, entry.source);
        },
        [] { refuse("a (*,G) entry cannot be told of without a change"); });
  }
}

// Of what a temper does at a moment.
void OwnSimulation::performAll(std::vector<std::string> const& commands) {
  for (auto const& command : commands) {
    try {
      refuseIfLookedAtTooMuch();
      std::visit([this](auto const& one) { on(one); }, commandFromText(command, 0, ownForms()));
    } catch (std::range_error const& e) {
      line(fmt::format("cannot {}: {}", command, e.what()));
    }
  }
}

// What `temper` says, instead of packets. Whatever is called here may change the temper, the data and the
// machines.
void OwnSimulation::sendTempered(IO::MessageInfo const& record) {
  using Moment = TemperCommand::Moment;
  auto const kept = temper_;
  TemperCommand const& temper = *kept;
  auto const message = record.joinPruneMessage();
  auto const data = message->joinPruneData();
  auto const intf = record.intfId();
  bool const performs = ++temperedMessages_ == temper.message;
  bool const weary = ++temperedAtOnce_ > mostTemperedMessages || lookedAt_ > mayLookAt_;
  auto const throws = [this, &temper](Moment now) {
    if (temper.throws != now) return;
    line("the packet manager throws");
    throw std::runtime_error("the temper");
  };
  auto const moment = [&](Moment now) {
    if (performs && temper.moment == now) performAll(temper.commands);
  };
  auto const pending = inOrderOfWalk(*data);
  lookedAt_ += data->joinPruneGroupDataCount() + pending.size();
  auto const sendKind = sendKindOf(*data);
  auto const holdTime = data->holdTime();
  throws(Moment::first);
  moment(Moment::first);
  Packet::JoinPruneMessage::Report report;
  std::vector<RouteEntry> taken;
  for (auto const& entry : pending) {
    if (taken.size() >= temper.take || weary) break;
    if (!takeOfTempered(*data, entry)) continue;
    ++counterOf(report, temper, taken.size());
    taken.push_back(entry);
    if (taken.size() != 1) continue;
    moment(Moment::middle);
    throws(Moment::middle);
  }
  if (temper.tidy) removeEmptyGroups(*data);
  line(fmt::format("taken on {}, upstream {}, {}, hold {}, of {}: {}, {} suppressed, {} filtered",
                   intf.name(), toText(data->upstreamNeighbor()), sendKind, holdTime, pending.size(),
                   counted(report.sources, "source"), report.suppressedSources, report.filteredSources));
  for (auto const& entry : taken) line(fmt::format("  {}", toText(entry)));
  nowIs(now_ + temper.cost);
  message->reportIs(weary ? report : temper.report.value_or(report));
  moment(Moment::last);
  throws(Moment::last);
}

// The manager or the temper.
void OwnSimulation::serveRecord() {
  if (temper_->on) {
    manager_->stop();
    temperer_->notifierIs(manager_->txMessageInfo());
  } else {
    temperer_->notifierIs(nullptr);
    Simulation::serveRecord();
  }
}

void OwnSimulation::on(TemperCommand const& command) {
  temper_ = std::make_shared<TemperCommand>(command);
  temperedMessages_ = 0;
  serveRecord();
}

}  // namespace Routing::Pim::Jpagent
