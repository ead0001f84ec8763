#include "agent/Simulation.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "agent/Conversion.h"
#include "agent/RingMessages.h"

namespace Routing::Pim::Agent {

namespace {

// Sums of doubles may miss the end of a wait by this much.
constexpr Seconds hair = 1e-9;

// As many expiries at one and the same time do not occur in a world that goes on.
constexpr U32 mostExpiriesAtOnce = 10'000;

// A packet manager that claims to have sent what it has not would be asked for more for ever, if time stands still.
constexpr U32 mostTemperedMessages = 40;

// The handles whose levels the traces of a conversation come from. Others show what they write of themselves.
constexpr std::string_view tracedHandles[] = {"Pim::JoinPrune", "Pim::Agent"};

// The levels at which the engine writes that a timer's handler begins, and those handlers by channel.
constexpr U32 expiryLevels = 1u << 7 | 1u << 8;
constexpr std::pair<std::string_view, Channel> expiryHandlers[] = {
    {"handleTriggeredTimerExpiry", Channel::triggered},
    {"handleOverrideTimerExpiry", Channel::override},
    {"doResetHoldTime", Channel::periodic}};

void traceLevelsAre(U32 levels) {
  for (auto const name : tracedHandles) {
    auto& handle = Vel::TraceHandle::find(name);
    handle.levelsDel();
    for (U32 level = 0; level < 31; ++level)
      if (levels >> level & 1) handle.levelIs(level, true);
  }
}

bool isTracedHandle(std::string_view name) {
  return std::find(std::begin(tracedHandles), std::end(tracedHandles), name) != std::end(tracedHandles);
}

template <class... Arguments>
[[noreturn]] void refuse(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  throw std::range_error(fmt::format(format, std::forward<Arguments>(arguments)...));
}

std::string pointerText(void const* pointer) {
  std::ostringstream text;
  text << pointer;
  return text.str();
}

std::string secondsText(Seconds seconds) { return fmt::format("{:.3f}", seconds); }

std::string counted(std::size_t count, std::string_view what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// "remove join (10.9.0.1,239.1.1.1)" for one that goes, the entry alone for one that comes.
std::string changeText(Change change, RouteEntry const& entry) {
  return (change == Change::remove ? "remove " : "") + toText(entry);
}

std::vector<RouteEntry> entriesOf(WireMessage const& message) {
  std::vector<RouteEntry> entries;
  for (auto const& group : message.groups()) {
    for (auto const& join : group.joins()) entries.push_back({true, join.kind, join.address, group.group()});
    for (auto const& prune : group.prunes())
      entries.push_back({false, prune.kind, prune.address, group.group()});
  }
  return entries;
}

// In ascending order of the groups, and in each group by kind and source.
std::vector<RouteEntry> entriesOf(Packet::JoinPruneData const& data) {
  std::vector<RouteEntry> entries;
  for (auto const& groupData : data.joinPruneGroupDataIterator()) {
    auto const group = groupData.group();
    auto const add = [&](auto sources, SourceKind kind, bool join) {
      for (; sources; ++sources) entries.push_back({join, kind, sources.key(), group});
    };
    if (auto const wildcard = groupData.wcSourceData())
      entries.push_back({wildcard->join(), SourceKind::wildcard, wildcard->address(), group});
    add(groupData.joinedSourceIterator(), SourceKind::source, true);
    add(groupData.prunedSourceIterator(), SourceKind::source, false);
    add(groupData.joinedRptSourceIterator(), SourceKind::sourceRpt, true);
    add(groupData.prunedRptSourceIterator(), SourceKind::sourceRpt, false);
  }
  std::sort(entries.begin(), entries.end(), [](RouteEntry const& a, RouteEntry const& b) {
    return std::tuple(a.group, a.kind, !a.join, a.source) < std::tuple(b.group, b.kind, !b.join, b.source);
  });
  return entries;
}

void put(Packet::JoinPruneGroupData& group, RouteEntry const& entry) {
  switch (entry.kind) {
    case SourceKind::wildcard:
      group.wcSourceDataIs(Vel::create<Packet::WcSourceData>(entry.source, entry.join));
      break;
    case SourceKind::source:
      entry.join ? group.joinedSourceIs(entry.source) : group.prunedSourceIs(entry.source);
      break;
    case SourceKind::sourceRpt:
      entry.join ? group.joinedRptSourceIs(entry.source) : group.prunedRptSourceIs(entry.source);
      break;
  }
}

bool has(Packet::JoinPruneGroupData const& group, RouteEntry const& entry) {
  switch (entry.kind) {
    case SourceKind::wildcard: {
      auto const wildcard = group.wcSourceData();
      return wildcard && wildcard->join() == entry.join && wildcard->address() == entry.source;
    }
    case SourceKind::source:
      return entry.join ? group.joinedSource(entry.source) : group.prunedSource(entry.source);
    case SourceKind::sourceRpt:
      return entry.join ? group.joinedRptSource(entry.source) : group.prunedRptSource(entry.source);
  }
  return false;
}

// False if it is not there.
bool takeOut(Packet::JoinPruneGroupData& group, RouteEntry const& entry) {
  if (!has(group, entry)) return false;
  switch (entry.kind) {
    case SourceKind::wildcard:
      group.wcSourceDataDel();
      break;
    case SourceKind::source:
      entry.join ? group.joinedSourceDel(entry.source) : group.prunedSourceDel(entry.source);
      break;
    case SourceKind::sourceRpt:
      entry.join ? group.joinedRptSourceDel(entry.source) : group.prunedRptSourceDel(entry.source);
      break;
  }
  return true;
}

// The times of a machine's timers, in the order of the channels.
std::array<Seconds, channelNames.size()> timersOf(JoinPruneNeighborSm const& sm) {
  auto const timeOf = [](auto const& timer) { return timer ? timer->timeMin() : Vel::never; };
  auto const periodic = sm.joinPrunePeriodicTimerSm();
  return {timeOf(sm.triggeredTimer()), timeOf(sm.overrideTimer()),
          periodic ? timeOf(periodic->periodicTimer()) : Vel::never};
}

}  // namespace

// --- The inputs that are the simulation's own

class Simulation::Rps final : public RpHashComputeStatus {
 public:
  IpGenAddr rpHashCompute(IpGenAddr const& group, IpGenAddr const& rp) override {
    return table.rp(group, rp);
  }
  RpTable table;
};

class Simulation::Groups final : public JoinPruneFilter {
 public:
  bool deny(IpGenAddr const& group) const override {
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&group](IpGenPrefix const& prefix) { return prefix.contains(group); });
  }
  std::vector<IpGenPrefix> prefixes;
};

// --- What tells of the outputs

// Does not keep the message machine alive, so that `drop` drops it.
class Simulation::MachineWatch final : public JoinPruneMessageSm::NotifieeConst {
 public:
  explicit MachineWatch(Simulation& simulation) : simulation_(simulation) { isNondestructingIs(true); }
  void onJoinPruneNeighborSm(IpGenAddr address) override { simulation_.machineChanged(address); }

 private:
  Simulation& simulation_;
};

// What it throws, as a manager with that temper does, is part of the story and not an error.
class Simulation::Temper final : public IO::MessageInfo::Notifiee {
 public:
  explicit Temper(Simulation& simulation) : simulation_(simulation) {}
  void onCount() override { simulation_.sendTempered(*notifier()); }
  void onNotificationException(Vel::AttributeId) override {}

 private:
  Simulation& simulation_;
};

class Simulation::RecordWatch final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  RecordWatch(Simulation& simulation, bool join) : simulation_(simulation), join_(join) {}
  void onRxCount() override { simulation_.recorded(*notifier(), join_); }

 private:
  Simulation& simulation_;
  bool const join_;
};

void Simulation::nowIs(Seconds now) {
  if (now == now_) return;
  now_ = now;
  RingMessages::clock(now);
}

// A machine's timers go with it.
void Simulation::ringGone(IpGenAddr const& target) const {
  auto const& timers = targets_.at(target).timers;
  for (std::size_t i = 0; i < timers.size(); ++i)
    if (timers[i] != Vel::never) ringTimer(TimerEvent::disarmed, target, static_cast<Channel>(i), Vel::never);
}

void Simulation::ringTimer(TimerEvent event, IpGenAddr const& target, Channel channel, Seconds due) const {
  if (Scrivo::TraceFile::current() == nullptr) return;
  auto const known = targets_.find(target);
  std::string const intf = known == targets_.end() ? "" : known->second.intf;
  RingMessages::ofChannel(channel, [&]<Channel one>() {
    switch (event) {
      case TimerEvent::armed:
        return RingMessages::timer<TimerEvent::armed, one>(target, intf, secondsText(due));
      case TimerEvent::moved:
        return RingMessages::timer<TimerEvent::moved, one>(target, intf, secondsText(due));
      case TimerEvent::disarmed:
        return RingMessages::timer<TimerEvent::disarmed, one>(target, intf, {});
      case TimerEvent::fired:
        return RingMessages::timer<TimerEvent::fired, one>(target, intf, secondsText(due));
    }
  });
}

void Simulation::line(std::string_view text) { out_ << secondsText(now_) << ' ' << text << '\n'; }

void Simulation::machineChanged(IpGenAddr const& address) {
  auto const owner = machineWatch_->notifier();
  auto const sm = owner ? owner->joinPruneNeighborSm(address) : nullptr;
  auto const known = targets_.find(address);
  if (known != targets_.end() && !sm) {
    // The object's address may be another one's soon.
    ringGone(address);
    names_.erase(pointerText(known->second.machine));
    names_.erase(pointerText(known->second.periodicTimerSm));
    targets_.erase(known);
    line(fmt::format("machine {} gone", toText(address)));
  } else if (sm && (known == targets_.end() || known->second.machine != sm.get())) {
    auto const periodic = sm->joinPrunePeriodicTimerSm();
    auto const intf = sm->intf()->intfId().name();
    if (known != targets_.end()) ringGone(address);
    targets_[address] = {sm.get(), periodic.get(), intf, {Vel::never, Vel::never, Vel::never}};
    line(fmt::format("machine {} made on {}, for the {}", toText(address), intf,
                     sm->neighbor() ? "neighbor" : "interface"));
  }
}

void Simulation::recorded(JoinPruneMessageInfo const& record, bool join) {
  std::ostringstream text;
  text << (join ? "rxJoin " : "rxPrune ") << record.rxCount() << ": " << &record;
  if (record.sourceFlags() == Packet::wildcardFlags) text << ", RP: " << record.wcSource();
  line(text.str());
}

void Simulation::send(OutgoingPacket const& packet) {
  auto const upstream = packet.message.upstreamNeighbor();
  auto const message = manager_->txMessageInfo()->joinPruneMessage();
  line(fmt::format("sent on {} from {}, upstream {}, {}, hold {}, {} bytes", packet.intf.name(),
                   toText(packet.source), toText(upstream), channelOf(*message->joinPruneData()),
                   packet.message.holdTime(), packet.bytes.size()));
  // Of the bytes, so that a packet that says anything else than it should is seen here.
  auto const decoded = decodeJoinPrune(packet.bytes, packet.source, packet.destination);
  if (auto const* const refusal = std::get_if<Refusal>(&decoded)) {
    line(fmt::format("  not well formed: {}", toText(*refusal)));
  } else {
    auto const& wire = std::get<WireMessage>(decoded);
    auto const entries = entriesOf(wire);
    ringSent(packet, entries);
    if (!brief_) {
      for (auto const& entry : entries) line(fmt::format("  {}", toText(entry)));
    } else if (!entries.empty()) {
      line(fmt::format("  {} in {}: {} ... {}", counted(entries.size(), "route"),
                       counted(wire.groups().size(), "group"), toText(entries.front()),
                       toText(entries.back())));
    }
  }
  if (alsoTo_) alsoTo_->send(packet);
  nowIs(now_ + cost_);
}

void Simulation::ringSent(OutgoingPacket const& packet, std::vector<RouteEntry> const& entries) const {
  if (Scrivo::TraceFile::current() == nullptr) return;
  auto const data = manager_->txMessageInfo()->joinPruneMessage()->joinPruneData();
  auto const channel = std::find(channelNames.begin(), channelNames.end(), channelOf(*data));
  if (channel == channelNames.end()) return;
  auto const joins = static_cast<std::size_t>(
      std::count_if(entries.begin(), entries.end(), [](RouteEntry const& entry) { return entry.join; }));
  RingMessages::ofChannel(static_cast<Channel>(channel - channelNames.begin()), [&]<Channel one>() {
    RingMessages::sent<one>(packet.message.upstreamNeighbor(), packet.intf.name(), joins,
                            entries.size() - joins, packet.bytes.size());
  });
}

std::string_view Simulation::channelOf(Packet::JoinPruneData const& data) const {
  auto const channels = dataOf(data.upstreamNeighbor());
  auto const channel =
      std::find_if(channels.begin(), channels.end(), [&data](auto const& set) { return set.get() == &data; });
  return channel == channels.end() ? "for a target that is gone"
                                   : channelNames[static_cast<std::size_t>(channel - channels.begin())];
}

// What `temper` says, instead of packets. Whatever is called here may change the temper, the data and the machines.
void Simulation::sendTempered(IO::MessageInfo const& record) {
  using Moment = TemperCommand::Moment;
  TemperCommand const temper = temper_;
  auto const message = record.joinPruneMessage();
  auto const data = message->joinPruneData();
  auto const intf = record.intfId();
  bool const performs = ++temperedMessages_ == temper.message;
  bool const weary = ++temperedAtOnce_ > mostTemperedMessages;
  auto const throws = [this, &temper](Moment now) {
    if (temper.throws != now) return;
    line("the packet manager throws");
    throw std::runtime_error("the temper");
  };
  auto const moment = [&](Moment now) {
    if (!performs || temper.moment != now) return;
    for (auto const& command : temper.commands) {
      try {
        std::visit([this](auto const& one) { on(one); }, commandFromText(command));
      } catch (std::range_error const& e) {
        line(fmt::format("cannot {}: {}", command, e.what()));
      }
    }
  };
  // In the order in which the data is walked.
  std::vector<RouteEntry> pending;
  for (auto g = data->joinPruneGroupDataIterator(); g; ++g) {
    auto const add = [&](auto sources, SourceKind kind, bool join) {
      for (; sources; ++sources) pending.push_back({join, kind, sources.key(), g.key()});
    };
    if (auto const wildcard = g->wcSourceData())
      pending.push_back({wildcard->join(), SourceKind::wildcard, wildcard->address(), g.key()});
    add(g->joinedSourceIterator(), SourceKind::source, true);
    add(g->prunedSourceIterator(), SourceKind::source, false);
    add(g->joinedRptSourceIterator(), SourceKind::sourceRpt, true);
    add(g->prunedRptSourceIterator(), SourceKind::sourceRpt, false);
  }
  auto const channel = channelOf(*data);
  auto const holdTime = data->holdTime();
  throws(Moment::first);
  moment(Moment::first);
  Packet::JoinPruneMessage::Report report;
  std::vector<RouteEntry> taken;
  for (auto const& entry : pending) {
    if (taken.size() >= temper.take || weary) break;
    if (!data->periodic()) {
      auto const group = data->joinPruneGroupData(entry.group);
      if (!group || !takeOut(*group, entry)) continue;
    }
    auto& counter = taken.size() < temper.filtered ? report.filteredSources
                    : taken.size() < std::size_t{temper.filtered} + temper.suppressed
                        ? report.suppressedSources
                        : report.sources;
    ++counter;
    taken.push_back(entry);
    if (taken.size() != 1) continue;
    moment(Moment::middle);
    throws(Moment::middle);
  }
  if (temper.tidy) {
    for (auto g = data->joinPruneGroupDataIterator(); g; ++g)
      if (g->empty()) data->joinPruneGroupDataDel(g.key());
  }
  line(fmt::format("taken on {}, upstream {}, {}, hold {}, of {}: {}, {} suppressed, {} filtered",
                   intf.name(), toText(data->upstreamNeighbor()), channel, holdTime, pending.size(),
                   counted(report.sources, "source"), report.suppressedSources, report.filteredSources));
  for (auto const& entry : taken) line(fmt::format("  {}", toText(entry)));
  nowIs(now_ + temper.cost);
  message->reportIs(weary ? report : temper.report.value_or(report));
  moment(Moment::last);
  throws(Moment::last);
}

void Simulation::traced(Vel::TraceLine const& trace) {
  for (auto const& [handler, channel] : expiryHandlers) {
    if (due_.empty() || trace.function != handler) continue;
    for (auto const& [address, target] : targets_) {
      auto const machine = channel == Channel::periodic ? target.periodicTimerSm : target.machine;
      if (trace.text.find(pointerText(machine)) != trace.text.npos) tellFiring(address, channel);
    }
  }
  bool const engine = trace.handle == tracedHandles[0];
  if (isTracedHandle(trace.handle) && !(shownLevels_ >> trace.level & 1)) return;
  line(fmt::format("trace {} {}{}{}", trace.level, engine ? "" : trace.handle, engine ? "" : ": ",
                   named(trace.text, trace.function)));
}

// Puts names for the addresses of objects: "::@0x55d0c0de::" and, at the beginning, "0x55d0c0dehandler()",
// where the handler's name may go on in what could be digits.
std::string Simulation::named(std::string_view text, std::string_view function) {
  std::string result;
  auto const bare = text.starts_with("0x") && !function.empty() ? text.find(function, 2) : text.npos;
  if (bare != text.npos) {
    result = "@" + nameOf(std::string(text.substr(0, bare)));
    text.remove_prefix(bare);
  }
  for (;;) {
    auto const at = text.find("@0x");
    if (at == text.npos) return result.append(text);
    auto const begin = text.begin() + static_cast<std::ptrdiff_t>(at);
    auto const end = std::find_if_not(begin + 3, text.end(), isHexDigit);
    result.append(text.begin(), begin + 1).append(nameOf(std::string(begin + 1, end)));
    text.remove_prefix(static_cast<std::size_t>(end - text.begin()));
  }
}

std::string const& Simulation::nameOf(std::string const& pointer) {
  auto& name = names_[pointer];
  if (name.empty()) name = std::to_string(++lastName_);
  return name;
}

// What is no machine any more has lost its name: another object may come to lie there.
void Simulation::forgetNames() {
  std::set<std::string> alive;
  for (auto const& [address, target] : targets_) {
    alive.insert(pointerText(target.machine));
    alive.insert(pointerText(target.periodicTimerSm));
  }
  std::erase_if(names_, [&alive](auto const& name) { return !alive.contains(name.first); });
}

void Simulation::tellTimers() {
  for (auto const& [address, sm] : machines()) {
    auto const known = targets_.find(address);
    if (known == targets_.end()) continue;
    auto const timers = timersOf(*sm);
    for (std::size_t i = 0; i < timers.size(); ++i) {
      Seconds const was = std::exchange(known->second.timers[i], timers[i]);
      if (was == timers[i]) continue;
      ringTimer(timers[i] == Vel::never ? TimerEvent::disarmed
                : was == Vel::never     ? TimerEvent::armed
                                        : TimerEvent::moved,
                address, static_cast<Channel>(i), timers[i]);
      auto const change = timers[i] == Vel::never ? "disarmed"
                          : was == Vel::never
                              ? "armed for " + secondsText(timers[i])
                              : fmt::format("moved from {} to {}", secondsText(was), secondsText(timers[i]));
      line(fmt::format("timer {} {} {}", toText(address), channelNames[i], change));
    }
  }
}

void Simulation::expire() {
  for (auto& [address, target] : targets_) {
    for (std::size_t i = 0; i < target.timers.size(); ++i) {
      if (target.timers[i] > now_) continue;
      due_.emplace(std::pair(address, static_cast<Channel>(i)), target.timers[i]);
      target.timers[i] = Vel::never;
    }
  }
  // Which of several comes first, and how long those before it take, the engine's own traces tell.
  if (due_.size() == 1)
    tellFiring(due_.begin()->first.first, due_.begin()->first.second);
  else
    traceLevelsAre(shownLevels_ | expiryLevels);
  wheel_->expire();
  traceLevelsAre(shownLevels_);
  while (!due_.empty()) tellFiring(due_.begin()->first.first, due_.begin()->first.second);
  tellTimers();
  forgetNames();
}

void Simulation::tellFiring(IpGenAddr const& address, Channel channel) {
  auto const fired = due_.extract({address, channel});
  if (!fired) return;
  Seconds const time = fired.mapped();
  ringTimer(TimerEvent::fired, address, channel, time);
  line(fmt::format("timer {} {} fires{}", toText(fired.key().first), text(channel),
                   time < now_ - hair ? ", due " + secondsText(time) : ""));
}

// --- Life

Simulation::Simulation(std::ostream& out, PacketSink* alsoTo)
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
      temperer_(Vel::create<Temper>(*this)),
      machineWatch_(Vel::create<MachineWatch>(*this)),
      joinWatch_(Vel::create<RecordWatch>(*this, true)),
      pruneWatch_(Vel::create<RecordWatch>(*this, false)) {
  srand48(0);
  RingMessages::clock(now_);
  Vel::traceSinkIs([this](Vel::TraceLine const& trace) { traced(trace); });
  status_->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  joinWatch_->notifierIs(rxJoin_);
  pruneWatch_->notifierIs(rxPrune_);
  // Another router's join suppresses one's own (RFC 7761, 4.5.5); nothing suppresses a prune.
  auto const suppression = [groups = suppressed_](Dova::IntfId const&, IpGenAddr const&,
                                                  RouteKey const& route, SourceKind,
                                                  bool join) { return join && groups->deny(route.group()); };
  manager_ = Vel::create<PacketManager>(packets_, pimStatus_, filtered_, suppression);
  manager_->start();
}

// Silent: what ends with the process is not part of the story.
Simulation::~Simulation() {
  machineWatch_->notifierIs(nullptr);
  temperer_->notifierIs(nullptr);
  traceLevelsAre(0);
  Vel::traceSinkIs({});
  machine_ = nullptr;
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

std::array<Vel::Ptr<Packet::JoinPruneData>, channelNames.size()> Simulation::dataOf(
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
  temperedAtOnce_ = 0;
  std::visit([this](auto const& one) { on(one); }, command);
  tellTimers();
  forgetNames();
}

void Simulation::on(IntfCommand const& command) {
  Dova::IntfId const id(command.name);
  if (command.down && !pimStatus_->pimIntf(id)) refuse("interface {} is not up", command.name);
  auto& intf = intfs_[command.name];
  if (!intf) intf = Vel::create<Intf>(id);
  if (command.holdTime) intf->joinPruneHoldTimeIs(*command.holdTime);
  if (command.interval) intf->joinPruneIntervalIs(*command.interval);
  if (command.overrideInterval) intf->usedOverrideIntervalInSecondsIs(*command.overrideInterval);
  if (command.mtu) manager_->mtuIs(id, *command.mtu);
  if (command.renew) {
    auto const renewed = Vel::create<Intf>(id);
    renewed->joinPruneHoldTimeIs(intf->joinPruneHoldTime());
    renewed->joinPruneIntervalIs(intf->joinPruneInterval());
    renewed->usedOverrideIntervalInSecondsIs(intf->usedOverrideIntervalInSeconds());
    renewed->usedAddressWithMaskIs(intf->usedAddressWithMask());
    intf = renewed;
    if (pimStatus_->pimIntf(id)) pimStatus_->pimIntfIs(renewed);
  }
  if (command.address) intf->usedAddressWithMaskIs(*command.address);
  if (command.notify) intf->usedAddressWithMaskNotify();
  if (command.again) {
    pimStatus_->pimIntfNotify(id);
    pimStatus_->pimIntfNotifyImmediate();
  }
  if (command.down)
    pimStatus_->pimIntfDel(id);
  else if (!command.stay && !pimStatus_->pimIntf(id))
    pimStatus_->pimIntfIs(intf);
}

void Simulation::on(NeighborCommand const& command) {
  auto const address = toText(command.address);
  auto const known = neighbors_.find(command.address);
  if (command.again) {
    pimStatus_->pimNeighborNotify(command.address);
    return;
  }
  if (command.intf.empty() && known == neighbors_.end()) refuse("there is no neighbor {}", address);
  if (!command.down) {
    auto const intf = command.intf.empty() ? known->second : knownIntf(command.intf);
    if (auto const present = pimStatus_->pimNeighbor(command.address); present && present->intf() != intf)
      refuse("neighbor {} is on {}", address, present->intf()->intfId().name());
    pimStatus_->pimNeighborIs(command.address, intf);
    neighbors_[command.address] = intf;
  } else if (!pimStatus_->pimNeighborDel(command.address)) {
    refuse("neighbor {} is not up", address);
  }
}

void Simulation::on(RpCommand const& command) {
  try {
    rps_->table.add(command.text);
  } catch (OptionError const& e) {
    refuse("{}", e.what());
  }
}

void Simulation::on(PolicyCommand const& command) {
  Groups* const policies[] = {denied_.get(), filtered_.get(), suppressed_.get()};
  auto& prefixes = policies[static_cast<std::size_t>(command.policy)]->prefixes;
  if (!command.off)
    prefixes.push_back(command.groups);
  else if (std::erase(prefixes, command.groups) == 0)
    refuse("these groups were not named before");
}

void Simulation::fill(Packet::JoinPruneData& data, DataCommand const& command) {
  std::vector<IpGenAddr> groups;
  for (auto const& entry : command.entries)
    if (data.joinPruneGroupData(entry.group)) refuse("group {} is there already", toText(entry.group));
  for (auto const& entry : command.entries) {
    auto group = data.joinPruneGroupData(entry.group);
    if (!group) {
      group = data.newJoinPruneGroupData(entry.group);
      groups.push_back(entry.group);
    }
    put(*group, entry);
  }
  if (command.all) data.joinPruneGroupDataNotifyImmediate();
  for (auto const& group : groups)
    if (!command.all) data.joinPruneGroupDataNotify(group);
}

void Simulation::again(Packet::JoinPruneData& data, DataCommand const& command) {
  if (command.entries.empty()) data.joinPruneGroupDataNotifyImmediate();
  for (auto const& entry : command.entries) {
    auto const group = data.joinPruneGroupData(entry.group);
    if (!group) refuse("there is no group {}", toText(entry.group));
    auto const tell = [&](auto all, auto one) {
      command.all ? (*group.*all)() : (*group.*one)(entry.source);
    };
    using G = Packet::JoinPruneGroupData;
    using All = void (G::*)();
    using One = void (G::*)(IpGenAddr);
    if (entry.kind == SourceKind::wildcard) refuse("a (*,G) entry cannot be told of without a change");
    if (entry.kind == SourceKind::source && entry.join)
      tell(All(&G::joinedSourceNotifyImmediate), One(&G::joinedSourceNotify));
    else if (entry.kind == SourceKind::source)
      tell(All(&G::prunedSourceNotifyImmediate), One(&G::prunedSourceNotify));
    else if (entry.join)
      tell(All(&G::joinedRptSourceNotifyImmediate), One(&G::joinedRptSourceNotify));
    else
      tell(All(&G::prunedRptSourceNotifyImmediate), One(&G::prunedRptSourceNotify));
  }
}

// All or nothing: what cannot be removed is found before anything is.
void Simulation::refuseUnlessAllAreThere(Packet::JoinPruneData const& data, DataCommand const& command) {
  std::set<std::tuple<bool, SourceKind, IpGenAddr, IpGenAddr>> removed;
  for (auto const& entry : command.entries) {
    auto const group = data.joinPruneGroupData(entry.group);
    if (!group || !has(*group, entry))
      refuse("{} has no {} {}", toText(command.target), text(command.channel), toText(entry));
    if (!removed.emplace(entry.join, entry.kind, entry.source, entry.group).second)
      refuse("{} has no second {} {}", toText(command.target), text(command.channel), toText(entry));
  }
}

void Simulation::on(DataCommand const& command) {
  auto const target = toText(command.target);
  auto const data = dataOf(command.target)[static_cast<std::size_t>(command.channel)];
  if (command.change == Change::make) {
    switch (command.channel) {
      case Channel::triggered:
        status_->triggeredGroupIs(command.target);
        return;
      case Channel::override:
        status_->overrideGroupIs(command.target);
        return;
      case Channel::periodic:
        status_->periodicGroupStatus()->upJoinPruneIs(command.target);
        return;
    }
  }
  if (!data) refuse("{} is no upstream target", target);
  if (Scrivo::TraceFile::current() != nullptr && !command.entries.empty()) {
    RingMessages::ofChannel(command.channel, [&]<Channel one>() {
      RingMessages::changed<one>(command.target, changeText(command.change, command.entries.front()),
                                 command.entries.size());
    });
  }
  // Where there is a machine, emptied groups are its own to remove.
  auto const retireGroup = [&](Packet::JoinPruneGroupData const& group) {
    if (group.empty() && !(machine_ && machine_->joinPruneNeighborSm(command.target)))
      data->joinPruneGroupDataDel(group.group());
  };
  switch (command.change) {
    case Change::make:
      break;
    case Change::gone:
      if (command.channel == Channel::triggered)
        status_->triggeredGroupDel(command.target);
      else if (command.channel == Channel::override)
        status_->overrideGroupDel(command.target);
      else
        status_->periodicGroupStatus()->upJoinPruneDel(command.target);
      break;
    case Change::group:
      data->joinPruneGroupDataIs(command.group);
      break;
    case Change::ungroup:
      data->joinPruneGroupDataDel(command.group);
      break;
    case Change::filled:
      fill(*data, command);
      break;
    case Change::again:
      again(*data, command);
      break;
    case Change::add:
      for (auto const& entry : command.entries) put(*data->joinPruneGroupDataIs(entry.group), entry);
      break;
    case Change::remove:
      refuseUnlessAllAreThere(*data, command);
      for (auto const& entry : command.entries) {
        auto const group = data->joinPruneGroupData(entry.group);
        takeOut(*group, entry);
        retireGroup(*group);
      }
      break;
    case Change::removeWildcard: {
      auto const group = data->joinPruneGroupData(command.group);
      if (!group || !group->wcSourceData())
        refuse("{} has no {} (*,{})", target, text(command.channel), toText(command.group));
      group->wcSourceDataDel();
      retireGroup(*group);
      break;
    }
  }
}

void Simulation::on(ReceiveCommand const& command) {
  auto const intf = knownIntf(command.intf);
  RingMessages::received(command.intf, entriesOf(command.message).size());
  for (auto const& message : modelMessages(command.message)) {
    channel_->joinPruneMessageIs(message);
    channel_->intfIdIs(intf->intfId());
    channel_->countInc(1);
  }
}

void Simulation::on(WaitCommand const& command) {
  Seconds const end = command.until ? command.time : now_ + command.time;
  if (end < now_ - hair) refuse("it is {} already", secondsText(now_));
  U32 atOnce = 0;
  while (wheel_->timeMin() <= end + hair) {
    Seconds const before = now_;
    nowIs(std::max(now_, wheel_->timeMin()));
    expire();
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

// Whoever is to serve the transmit record, the manager or the temper.
void Simulation::serveRecord() {
  if (temper_.on) {
    manager_->stop();
    temperer_->notifierIs(manager_->txMessageInfo());
  } else {
    temperer_->notifierIs(nullptr);
    if (manager_->txMessageInfo()) manager_->start();
  }
}

void Simulation::on(RecordCommand const& command) {
  if (!command.on) {
    manager_->txMessageInfoDel();
  } else {
    manager_->txMessageInfoIs();
    serveRecord();
  }
}

void Simulation::on(TemperCommand const& command) {
  temper_ = command;
  temperedMessages_ = 0;
  serveRecord();
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
  }
  if (!subject) refuse("there is no machine or interface {}", command.subject);
  subject->attributeIs(command.attribute, command.value);
}

void Simulation::on(StartCommand const&) {
  if (machine_) refuse("the machine is there already");
  machine_ = joinPruneMessageSmFactory(status_, denied_, pimStatus_, rps_, rxJoin_, rxPrune_, channel_,
                                       manager_, wheel_);
  machineWatch_->notifierIs(machine_);
  for (auto const& [address, sm] : machines()) machineChanged(address);
}

void Simulation::on(DropCommand const&) {
  if (!machine_) refuse("there is no machine");
  machine_ = nullptr;
  for (auto const& [address, target] : targets_) ringGone(address);
  targets_.clear();
}

void Simulation::on(ShowCommand const& command) {
  std::set<IpGenAddr> targets;
  auto const collect = [&targets](auto i) {
    for (; i; ++i) targets.insert(i.key());
  };
  if (machine_) collect(machine_->joinPruneNeighborSmIterator());
  collect(status_->triggeredGroupIterator());
  collect(status_->overrideGroupIterator());
  collect(status_->periodicGroupStatus()->upJoinPruneIterator());
  if (targets.empty()) line("show no targets");
  for (auto const& address : targets) command.sets ? showEntries(address) : showTarget(address);
}

void Simulation::showTarget(IpGenAddr const& address) {
  auto const data = dataOf(address);
  auto const sm = machine_ ? machine_->joinPruneNeighborSm(address) : nullptr;
  std::string text = sm ? fmt::format("show {} on {}, {}", toText(address), sm->intf()->intfId().name(),
                                      sm->neighbor() ? "neighbor" : "interface")
                        : fmt::format("show {} without a machine", toText(address));
  for (std::size_t i = 0; i < data.size(); ++i) {
    text += fmt::format("; {} ", channelNames[i]);
    text += data[i] ? counted(data[i]->joinPruneGroupDataCount(), "group") : "gone";
    if (!sm) continue;
    U32 const watched[] = {sm->triggeredGroupDataCount(), sm->overrideGroupDataCount(),
                           sm->periodicGroupDataCount()};
    if (data[i] && watched[i] != data[i]->joinPruneGroupDataCount())
      text += fmt::format(" ({} watched)", watched[i]);
    if (static_cast<Channel>(i) == Channel::periodic)
      text += fmt::format(", {}", counted(sm->numPeriodicRoutes(), "route"));
    Seconds const time = timersOf(*sm)[i];
    if (time == Vel::never) continue;
    text += fmt::format(", at {}", secondsText(time));
    if (static_cast<Channel>(i) != Channel::periodic) continue;
    auto const slice = sm->joinPrunePeriodicTimerSm()->periodicParams();
    text += fmt::format(", then {} every {}", slice.routes, secondsText(slice.interval));
  }
  line(text);
}

void Simulation::showEntries(IpGenAddr const& address) {
  auto const data = dataOf(address);
  for (std::size_t i = 0; i < data.size(); ++i) {
    if (!data[i]) continue;
    for (auto const& entry : entriesOf(*data[i]))
      line(fmt::format("show {} {} {}", toText(address), channelNames[i], toText(entry)));
  }
}

void Simulation::on(TraceCommand const& command) {
  shownLevels_ = 0;
  for (U32 const level : command.levels) shownLevels_ |= 1u << level;
  traceLevelsAre(shownLevels_);
}

void Simulation::on(PacketsCommand const& command) { brief_ = command.brief; }

void Simulation::on(SayCommand const& command) {
  RingMessages::remark(command.text);
  line("-- " + command.text);
}

void simulate(Conversation const& conversation, Simulation& simulation) {
  for (auto const& step : conversation.steps()) {
    try {
      simulation.perform(step.command);
    } catch (std::range_error const& e) {
      throw ConversationError(step.line, e.what());
    }
  }
}

}  // namespace Routing::Pim::Agent
