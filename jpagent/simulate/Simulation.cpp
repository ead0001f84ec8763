// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/Simulation.h"
#include "jpagent/common/Progress.h"

#include <algorithm>
#include <cstdlib>
#include <ostream>

#include "jpagent/common/RingMessages.h"
#include "jpagent/simulate/Inside.h"
#include "jpagent/simulate/speaker/SpeakerWorld.h"

namespace Routing::Pim::Jpagent {

namespace {

// As many expiries at one and the same time do not occur where time passes.
constexpr U32 mostExpiriesAtOnce = 10'000;

}  // namespace

void Simulation::nowIs(Seconds now) {
  if (now == now_) return;
  now_ = now;
  RingMessages::clock(now);
}

void Simulation::line(std::string_view text) { out_ << secondsText(now_) << ' ' << text << '\n'; }

void Simulation::refuseIfLookedAtTooMuch() const {
  if (lookedAt_ > mayLookAt_)
    refuse("too much has been looked at as a whole: more than {} interfaces, data sets, groups and routes",
           mayLookAt_);
}

// --- Life

Simulation::Simulation(std::ostream& out, Speaker::PacketSink* alsoTo, std::size_t mayLookAt)
    : out_(out),
      alsoTo_(alsoTo),
      wheel_(Vel::create<Zanth::TimerWheel>([this] { return now_; })),
      pimStatus_(Vel::create<Status>()),
      status_(joinPruneStatusFactory()),
      denied_(Vel::create<Groups>()),
      filtered_(Vel::create<Groups>()),
      suppressed_(Vel::create<Groups>()),
      rps_(Vel::create<Rps>()),
      rxJoin_(joinPruneMessageInfoFactory()),
      rxPrune_(joinPruneMessageInfoFactory()),
      channel_(Vel::create<IO::MessageInfo>()),
      machineWatch_(Vel::create<MachineWatch>(*this)),
      expiryWatch_(Vel::create<ExpiryWatch>(*this)),
      joinWatch_(Vel::create<RecordWatch>(*this, true)),
      pruneWatch_(Vel::create<RecordWatch>(*this, false)),
      mayLookAt_(mayLookAt) {
  srand48(0);
  RingMessages::clock(now_);
  Vel::traceSinkIs([this](Vel::TraceLine const& trace) { traced(trace); });
  status_->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  expiryWatch_->notifierIs(wheel_->expiry());
  joinWatch_->notifierIs(rxJoin_);
  pruneWatch_->notifierIs(rxPrune_);
  // Another router's join suppresses one's own (RFC 7761, 4.5.5); nothing suppresses a prune.
  auto const suppression = [groups = suppressed_](Dova::IntfId const&, IpGenAddr const&,
                                                  RouteKey const& route, EntryKind kind) {
    return isJoin(kind) && groups->deny(route.group());
  };
  manager_ = Vel::create<Speaker::PacketManager>(packets_, pimStatus_, filtered_, suppression);
  manager_->dataSetsAre(status_);
  manager_->start();
}

// Silent: what ends with the process is not part of the story.
Simulation::~Simulation() {
  machineWatch_->notifierIs(nullptr);
  expiryWatch_->notifierIs(nullptr);
  traceLevelsAre(0);
  Vel::traceSinkIs({});
  machine_ = nullptr;
  speaker_ = nullptr;
  kept_.clear();
  joinWatch_->notifierIs(nullptr);
  pruneWatch_->notifierIs(nullptr);
}

std::map<IpGenAddr, Vel::Ptr<JoinPruneNeighborSm>> Simulation::machines() const {
  std::map<IpGenAddr, Vel::Ptr<JoinPruneNeighborSm>> found;
  if (machine_)
    for (auto i = machine_->joinPruneNeighborSmIterator(); i; ++i) found.emplace(i.key(), i.ptr());
  return found;
}

std::array<Vel::Ptr<Packet::JoinPruneData>, sendKindNames.size()> Simulation::dataOf(
    IpGenAddr const& target) const {
  return {status_->triggeredGroup(target), status_->overrideGroup(target),
          status_->periodicGroupStatus()->upJoinPrune(target)};
}

Vel::Ptr<Intf> Simulation::knownIntf(std::string const& name) const {
  auto const known = intfs_.find(name);
  if (known == intfs_.end()) refuse("there is no interface {}", name);
  return known->second;
}

// --- Commands

void Simulation::perform(Command const& command) {
  beginCommand();
  refuseIfLookedAtTooMuch();
  std::visit([this](auto const& one) { on(one); }, command);
  tellTimers();
  forgetNames();
}

void Simulation::on(WaitCommand const& command) {
  Seconds const end = command.until ? command.time : now_ + command.time;
  if (end < now_ - hair) refuse("it is {} already", secondsText(now_));
  U32 atOnce = 0;
  while (wheel_->timeMin() <= end + hair) {
    Seconds const before = now_;
    nowIs(std::max(now_, wheel_->timeMin()));
    expire();
    lookedAt_ += oneExpiry;
    refuseIfLookedAtTooMuch();
    atOnce = now_ > before ? 0 : atOnce + 1;
    if (atOnce > mostExpiriesAtOnce) refuse("timers fire for ever at {}", secondsText(now_));
  }
  nowIs(std::max(now_, end));
}

void Simulation::on(BusyCommand const& command) { nowIs(now_ + command.time); }

void Simulation::on(KeepCommand const& command) {
  if (!command.target) {
    kept_.clear();
    return;
  }
  auto const sm = machine_ ? machine_->joinPruneNeighborSm(*command.target) : nullptr;
  if (!sm) refuse("{} has no machine", toText(*command.target));
  kept_.push_back(sm);
}

void Simulation::on(SeedCommand const& command) { srand48(command.seed); }

void Simulation::on(CostCommand const& command) { cost_ = command.perMessage; }

void Simulation::on(SetCommand const& command) {
  Vel::Ptr<Vel::Entity> subject;
  if (command.subject == "machine") {
    subject = machine_;
  } else if (auto const intf = intfs_.find(command.subject); intf != intfs_.end()) {
    subject = intf->second;
    // The engine stops the process over an interval of 0, and with it the lines that would tell why.
    U32 interval = 1;
    if (command.attribute == "joinPruneInterval" && Vel::fromText(command.value, interval) && interval == 0)
      refuse("the interval must not be 0");
  } else if (auto const address = IpGenAddr::fromText(command.subject); address && machine_) {
    subject = machine_->joinPruneNeighborSm(*address);
    touched_.insert(*address);
  }
  if (!subject) refuse("there is no machine or interface {}", command.subject);
  subject->attributeIs(command.attribute, command.value);
}

void Simulation::on(StartCommand const&) {
  if (machine_) refuse("the machine is there already");
  lookedAt_ += intfs_.size() + neighbors_.size() + status_->triggeredGroupCount() +
               status_->overrideGroupCount() + status_->periodicGroupStatus()->upJoinPruneCount();
  machine_ = joinPruneMessageSmFactory(status_, denied_, pimStatus_, rps_, rxJoin_, rxPrune_, channel_,
                                       manager_, wheel_);
  machineWatch_->notifierIs(machine_);
  for (auto const& [address, sm] : machines()) machineChanged(address);
}

void Simulation::on(DropCommand const&) {
  if (!machine_) refuse("there is no machine");
  machine_ = nullptr;
  for (auto const& [address, target] : targets_) {
    ringGone(address);
    forget(address, target);
  }
  targets_.clear();
}

void Simulation::on(TraceCommand const& command) {
  U32 levels = 0;
  for (U32 const level : command.levels) levels |= 1u << level;
  traceLevelsAre(levels);
}

void Simulation::on(PacketsCommand const& command) { brief_ = command.brief; }

void Simulation::on(SayCommand const& command) {
  RingMessages::remark(command.text);
  line("-- " + command.text);
}

void Simulation::serveRecord() {
  if (manager_->txMessageInfo()) manager_->start();
}

void Simulation::on(RecordCommand const& command) {
  if (!command.on) {
    manager_->txMessageInfoDel();
  } else {
    manager_->txMessageInfoIs();
    serveRecord();
  }
}

void Simulation::on(SpeakerStartCommand const& command) {
  if (speaker_) refuse("there is a speaker already");
  srand48(static_cast<long>(command.seed));
  speaker_ = std::make_unique<SpeakerWorld>(*this, command.seed);
}

void Simulation::on(SpeakerCommand const& command) {
  if (!speaker_) refuse("there is no speaker");
  command.perform(*speaker_);
}

void simulate(Conversation const& conversation, Simulation& simulation) {
  U64 done = 0;
  for (auto const& step : conversation.steps()) {
    if (interrupted()) throw ConversationError(step.line, "interrupted");
    Progress::at(done++, conversation.steps().size());
    try {
      simulation.perform(step.command());
    } catch (std::range_error const& e) {
      throw ConversationError(step.line, e.what());
    }
  }
}

}  // namespace Routing::Pim::Jpagent
