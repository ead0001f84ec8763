#include "jpagent/simulate/Simulation.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "jpagent/common/PrefixTable.h"
#include "jpagent/common/RingMessages.h"
#include "pim/speaker/Conversion.h"

namespace Routing::Pim::Jpagent {

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

std::string pointerText(void const* pointer) { return fmt::format("{}", pointer); }

std::string secondsText(Seconds seconds) { return fmt::format("{:.3f}", seconds); }

std::string counted(std::size_t count, std::string_view what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// The addresses of objects in a trace's text: "::@0x55d0c0de::" and, at the beginning, "0x55d0c0dehandler()",
// where the handler's name may go on in what could be digits. `each` gets where one begins and ends.
template <class Each>
void forEachPointer(std::string_view text, std::string_view function, Each const& each) {
  std::size_t at = 0;
  if (text.starts_with("0x") && !function.empty()) {
    auto const end = text.find(function, 2);
    if (end != text.npos) each(0, at = end);
  }
  while ((at = text.find("@0x", at)) != text.npos) {
    auto const begin = ++at;
    for (at += 2; at < text.size() && isHexDigit(text[at]);) ++at;
    each(begin, at);
  }
}

// "remove join (10.9.0.1,239.1.1.1)" for one that goes, the entry alone for one that comes.
std::string changeText(Change change, RouteEntry const& entry) {
  return (change == Change::remove ? "remove " : "") + toText(entry);
}

std::vector<RouteEntry> entriesOf(Wire::JoinPrune const& message) {
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
    auto const add = [&](auto sources, Wire::SourceKind kind, bool join) {
      for (; sources; ++sources) entries.push_back({join, kind, sources.key(), group});
    };
    if (auto const wildcard = groupData.wcSourceData())
      entries.push_back({wildcard->join(), Wire::SourceKind::wildcard, wildcard->address(), group});
    add(groupData.joinedSourceIterator(), Wire::SourceKind::source, true);
    add(groupData.prunedSourceIterator(), Wire::SourceKind::source, false);
    add(groupData.joinedRptSourceIterator(), Wire::SourceKind::sourceRpt, true);
    add(groupData.prunedRptSourceIterator(), Wire::SourceKind::sourceRpt, false);
  }
  std::sort(entries.begin(), entries.end(), [](RouteEntry const& a, RouteEntry const& b) {
    return std::tuple(a.group, a.kind, !a.join, a.source) < std::tuple(b.group, b.kind, !b.join, b.source);
  });
  return entries;
}

void put(Packet::JoinPruneGroupData& group, RouteEntry const& entry) {
  switch (entry.kind) {
    case Wire::SourceKind::wildcard:
      group.wcSourceDataIs(Vel::create<Packet::WcSourceData>(entry.source, entry.join));
      break;
    case Wire::SourceKind::source:
      entry.join ? group.joinedSourceIs(entry.source) : group.prunedSourceIs(entry.source);
      break;
    case Wire::SourceKind::sourceRpt:
      entry.join ? group.joinedRptSourceIs(entry.source) : group.prunedRptSourceIs(entry.source);
      break;
  }
}

bool has(Packet::JoinPruneGroupData const& group, RouteEntry const& entry) {
  switch (entry.kind) {
    case Wire::SourceKind::wildcard: {
      auto const wildcard = group.wcSourceData();
      return wildcard && wildcard->join() == entry.join && wildcard->address() == entry.source;
    }
    case Wire::SourceKind::source:
      return entry.join ? group.joinedSource(entry.source) : group.prunedSource(entry.source);
    case Wire::SourceKind::sourceRpt:
      return entry.join ? group.joinedRptSource(entry.source) : group.prunedRptSource(entry.source);
  }
  return false;
}

// False if it is not there.
bool takeOut(Packet::JoinPruneGroupData& group, RouteEntry const& entry) {
  if (!has(group, entry)) return false;
  switch (entry.kind) {
    case Wire::SourceKind::wildcard:
      group.wcSourceDataDel();
      break;
    case Wire::SourceKind::source:
      entry.join ? group.joinedSourceDel(entry.source) : group.prunedSourceDel(entry.source);
      break;
    case Wire::SourceKind::sourceRpt:
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
  bool deny(IpGenAddr const& group) const override { return named_.longest(group) != nullptr; }
  void add(IpGenPrefix const& groups) { named_[groups].insert(groups.ipGenAddr()); }
  /// False if it was not added in these words, host bits included.
  bool remove(IpGenPrefix const& groups) {
    auto* const forms = named_.find(groups);
    if (!forms || forms->erase(groups.ipGenAddr()) == 0) return false;
    if (forms->empty()) named_.erase(groups);
    return true;
  }

 private:
  PrefixTable<std::set<IpGenAddr>> named_;  // with the addresses by which they were named
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
  touched_.insert(address);
  if (known != targets_.end() && !sm) {
    // The object's address may be another one's soon.
    ringGone(address);
    names_.erase(pointerText(known->second.machine));
    names_.erase(pointerText(known->second.periodicTimerSm));
    forget(address, known->second);
    targets_.erase(known);
    line(fmt::format("machine {} gone", toText(address)));
  } else if (sm && (known == targets_.end() || known->second.machine != sm.get())) {
    auto const periodic = sm->joinPrunePeriodicTimerSm();
    auto const intf = sm->intf()->intfId().name();
    if (known != targets_.end()) {
      ringGone(address);
      forget(address, known->second);
    }
    targets_[address] = {sm.get(), periodic.get(), intf, {Vel::never, Vel::never, Vel::never}};
    machineAt_[pointerText(sm.get())] = address;
    machineAt_[pointerText(periodic.get())] = address;
    // It takes up all that is pending.
    for (auto const& data : dataOf(address))
      if (data) lookedAt_ += data->joinPruneGroupDataCount();
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

void Simulation::send(Speaker::OutgoingPacket const& packet) {
  auto const upstream = packet.message.upstreamNeighbor();
  auto const message = manager_->txMessageInfo()->joinPruneMessage();
  line(fmt::format("sent on {} from {}, upstream {}, {}, hold {}, {} bytes", packet.intf.name(),
                   toText(packet.source), toText(upstream), channelOf(*message->joinPruneData()),
                   packet.message.holdTime(), packet.bytes.size()));
  // Of the bytes, so that a packet that says anything else than it should is seen here.
  auto const decoded = Wire::decodeJoinPrune(packet.bytes, packet.source, packet.destination);
  if (auto const* const refusal = std::get_if<Wire::Refusal>(&decoded)) {
    line(fmt::format("  not well formed: {}", toText(*refusal)));
  } else {
    auto const& wire = std::get<Wire::JoinPrune>(decoded);
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

void Simulation::ringSent(Speaker::OutgoingPacket const& packet,
                          std::vector<RouteEntry> const& entries) const {
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
    if (!performs || temper.moment != now) return;
    for (auto const& command : temper.commands) {
      try {
        refuseIfLookedAtTooMuch();
        std::visit([this](auto const& one) { on(one); }, commandFromText(command));
      } catch (std::range_error const& e) {
        line(fmt::format("cannot {}: {}", command, e.what()));
      }
    }
  };
  // In the order in which the data is walked.
  std::vector<RouteEntry> pending;
  for (auto g = data->joinPruneGroupDataIterator(); g; ++g) {
    auto const add = [&](auto sources, Wire::SourceKind kind, bool join) {
      for (; sources; ++sources) pending.push_back({join, kind, sources.key(), g.key()});
    };
    if (auto const wildcard = g->wcSourceData())
      pending.push_back({wildcard->join(), Wire::SourceKind::wildcard, wildcard->address(), g.key()});
    add(g->joinedSourceIterator(), Wire::SourceKind::source, true);
    add(g->prunedSourceIterator(), Wire::SourceKind::source, false);
    add(g->joinedRptSourceIterator(), Wire::SourceKind::sourceRpt, true);
    add(g->prunedRptSourceIterator(), Wire::SourceKind::sourceRpt, false);
  }
  lookedAt_ += data->joinPruneGroupDataCount() + pending.size();
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
  for (auto const& expiry : expiryHandlers) {
    auto const channel = expiry.second;
    if (due_.empty() || trace.function != expiry.first) continue;
    forEachPointer(trace.text, trace.function, [&](std::size_t begin, std::size_t end) {
      auto const pointer = trace.text.substr(begin, end - begin);
      auto const known = machineAt_.find(pointer);
      if (known == machineAt_.end()) return;
      auto const& target = targets_.at(known->second);
      auto const* const machine = channel == Channel::periodic ? target.periodicTimerSm : target.machine;
      if (pointerText(machine) == pointer) tellFiring(known->second, channel);
    });
  }
  bool const engine = trace.handle == tracedHandles[0];
  if (isTracedHandle(trace.handle) && !(shownLevels_ >> trace.level & 1)) return;
  line(fmt::format("trace {} {}{}{}", trace.level, engine ? "" : trace.handle, engine ? "" : ": ",
                   named(trace.text, trace.function)));
}

// Puts names for the addresses of objects.
std::string Simulation::named(std::string_view text, std::string_view function) {
  std::string result;
  std::size_t done = 0;
  forEachPointer(text, function, [&](std::size_t begin, std::size_t end) {
    result.append(text.substr(done, begin - done));
    if (begin == 0) result += '@';
    result.append(nameOf(std::string(text.substr(begin, end - begin))));
    done = end;
  });
  return result.append(text.substr(done));
}

std::string const& Simulation::nameOf(std::string const& pointer) {
  auto& name = names_[pointer];
  if (name.empty()) {
    name = std::to_string(++lastName_);
    passing_.push_back(pointer);
  }
  return name;
}

// What is no machine any more has lost its name: another object may come to lie there.
void Simulation::forgetNames() {
  for (auto const& pointer : passing_)
    if (!machineAt_.contains(pointer)) names_.erase(pointer);
  passing_.clear();
}

// What is kept of a target beside targets_.
void Simulation::forget(IpGenAddr const& address, Target const& target) {
  for (auto const* const object : {target.machine, target.periodicTimerSm}) {
    auto pointer = pointerText(object);
    auto const known = machineAt_.find(pointer);
    if (known != machineAt_.end() && known->second == address) machineAt_.erase(known);
    passing_.push_back(std::move(pointer));
  }
  for (std::size_t i = 0; i < target.timers.size(); ++i)
    armed_.erase({target.timers[i], address, static_cast<Channel>(i)});
}

// What it was.
Seconds Simulation::timerIs(IpGenAddr const& address, Target& target, Channel channel, Seconds time) {
  Seconds const was = std::exchange(target.timers[static_cast<std::size_t>(channel)], time);
  if (was != time) {
    armed_.erase({was, address, channel});
    if (time != Vel::never) armed_.emplace(time, address, channel);
  }
  return was;
}

void Simulation::tellTimers() {
  for (auto const& address : std::exchange(touched_, {})) {
    ++machinesLookedAt_;
    auto const known = targets_.find(address);
    auto const sm = machine_ ? machine_->joinPruneNeighborSm(address) : nullptr;
    if (known == targets_.end() || !sm) continue;
    auto const timers = timersOf(*sm);
    for (std::size_t i = 0; i < timers.size(); ++i) {
      auto const channel = static_cast<Channel>(i);
      Seconds const was = timerIs(address, known->second, channel, timers[i]);
      if (was == timers[i]) continue;
      ringTimer(timers[i] == Vel::never ? TimerEvent::disarmed
                : was == Vel::never     ? TimerEvent::armed
                                        : TimerEvent::moved,
                address, channel, timers[i]);
      auto const change = timers[i] == Vel::never ? "disarmed"
                          : was == Vel::never
                              ? "armed for " + secondsText(timers[i])
                              : fmt::format("moved from {} to {}", secondsText(was), secondsText(timers[i]));
      line(fmt::format("timer {} {} {}", toText(address), channelNames[i], change));
    }
  }
}

bool Simulation::everyTimerIsTold() const {
  auto const all = machines();
  return std::all_of(all.begin(), all.end(), [this](auto const& machine) {
    auto const known = targets_.find(machine.first);
    return known == targets_.end() || known->second.timers == timersOf(*machine.second);
  });
}

void Simulation::refuseIfLookedAtTooMuch() const {
  if (lookedAt_ > mayLookAt_)
    refuse("too much has been looked at as a whole: more than {} interfaces, data sets, groups and routes",
           mayLookAt_);
}

void Simulation::expire() {
  while (!armed_.empty() && std::get<Seconds>(*armed_.begin()) <= now_) {
    auto const [time, address, channel] = *armed_.begin();
    due_.emplace(std::pair(address, channel), time);
    timerIs(address, targets_.at(address), channel, Vel::never);
    touched_.insert(address);
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
      temperer_(Vel::create<Temper>(*this)),
      machineWatch_(Vel::create<MachineWatch>(*this)),
      joinWatch_(Vel::create<RecordWatch>(*this, true)),
      pruneWatch_(Vel::create<RecordWatch>(*this, false)),
      mayLookAt_(mayLookAt) {
  srand48(0);
  RingMessages::clock(now_);
  Vel::traceSinkIs([this](Vel::TraceLine const& trace) { traced(trace); });
  status_->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  joinWatch_->notifierIs(rxJoin_);
  pruneWatch_->notifierIs(rxPrune_);
  // Another router's join suppresses one's own (RFC 7761, 4.5.5); nothing suppresses a prune.
  auto const suppression = [groups = suppressed_](Dova::IntfId const&, IpGenAddr const&,
                                                  RouteKey const& route, Wire::SourceKind,
                                                  bool join) { return join && groups->deny(route.group()); };
  manager_ = Vel::create<Speaker::PacketManager>(packets_, pimStatus_, filtered_, suppression);
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
  refuseIfLookedAtTooMuch();
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
    lookedAt_ += intfs_.size();
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
  touched_.insert(command.address);
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
  auto& policy = *policies[static_cast<std::size_t>(command.policy)];
  if (!command.off)
    policy.add(command.groups);
  else if (!policy.remove(command.groups))
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
  if (command.entries.empty()) {
    lookedAt_ += data.joinPruneGroupDataCount();
    data.joinPruneGroupDataNotifyImmediate();
  }
  for (auto const& entry : command.entries) {
    auto const group = data.joinPruneGroupData(entry.group);
    if (!group) refuse("there is no group {}", toText(entry.group));
    auto const tell = [&](auto all, auto one) {
      command.all ? (*group.*all)() : (*group.*one)(entry.source);
    };
    using G = Packet::JoinPruneGroupData;
    using All = void (G::*)();
    using One = void (G::*)(IpGenAddr);
    if (entry.kind == Wire::SourceKind::wildcard) refuse("a (*,G) entry cannot be told of without a change");
    if (entry.kind == Wire::SourceKind::source && entry.join)
      tell(All(&G::joinedSourceNotifyImmediate), One(&G::joinedSourceNotify));
    else if (entry.kind == Wire::SourceKind::source)
      tell(All(&G::prunedSourceNotifyImmediate), One(&G::prunedSourceNotify));
    else if (entry.join)
      tell(All(&G::joinedRptSourceNotifyImmediate), One(&G::joinedRptSourceNotify));
    else
      tell(All(&G::prunedRptSourceNotifyImmediate), One(&G::prunedRptSourceNotify));
  }
}

// All or nothing: what cannot be removed is found before anything is.
void Simulation::refuseUnlessAllAreThere(Packet::JoinPruneData const& data, DataCommand const& command) {
  std::set<std::tuple<bool, Wire::SourceKind, IpGenAddr, IpGenAddr>> removed;
  bool const mayRepeat = command.entries.ranges().size() > 1;
  for (auto const& entry : command.entries) {
    auto const group = data.joinPruneGroupData(entry.group);
    if (!group || !has(*group, entry))
      refuse("{} has no {} {}", toText(command.target), text(command.channel), toText(entry));
    if (mayRepeat && !removed.emplace(entry.join, entry.kind, entry.source, entry.group).second)
      refuse("{} has no second {} {}", toText(command.target), text(command.channel), toText(entry));
  }
}

void Simulation::on(DataCommand const& command) {
  auto const target = toText(command.target);
  touched_.insert(command.target);
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
      RingMessages::changed<one>(command.target, changeText(command.change, *command.entries.begin()),
                                 command.entries.size());
    });
  }
  if (command.channel == Channel::periodic && machine_ && machine_->diagUpJoinCount()) {
    // The check of each route looks at all groups.
    lookedAt_ += command.entries.size() * (data->joinPruneGroupDataCount() + command.entries.size());
    refuseIfLookedAtTooMuch();
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
  for (auto const& message : Speaker::modelMessages(command.message)) {
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

// Whoever is to serve the transmit record, the manager or the temper.
void Simulation::serveRecord() {
  if (temper_->on) {
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
  temper_ = std::make_shared<TemperCommand>(command);
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
    auto const entries = entriesOf(*data[i]);
    // What has lines pays for itself.
    lookedAt_ += 1 + data[i]->joinPruneGroupDataCount() -
                 std::min<std::size_t>(data[i]->joinPruneGroupDataCount(), entries.size());
    for (auto const& entry : entries)
      line(fmt::format("show {} {} {}", toText(address), channelNames[i], toText(entry)));
    std::set<IpGenAddr> empty;
    for (auto const& group : data[i]->joinPruneGroupDataIterator())
      if (group.empty()) empty.insert(group.group());
    for (auto const& group : empty)
      line(fmt::format("show {} {} group {} without entries", toText(address), channelNames[i],
                       toText(group)));
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
      simulation.perform(step.command());
    } catch (std::range_error const& e) {
      throw ConversationError(step.line, e.what());
    }
  }
}

}  // namespace Routing::Pim::Jpagent
