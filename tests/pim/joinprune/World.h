// SPDX-License-Identifier: Apache-2.0
// Everything that a Join/Prune machine needs around it, with a clock that only a test moves.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/model/packet/GroupEntries.h"
#include "runtime/vel/Trace.h"

namespace Routing::Pim {

// The usual neighbor, group and source.
inline constexpr char const* N = "10.0.0.2";
inline constexpr char const* G = "239.1.1.1";
inline constexpr char const* S = "10.9.0.1";

inline Dova::IpGenAddr addr(std::string_view text) { return Dova::IpGenAddr(text); }

/// The form of anything that prints.
template <class T>
std::string text(T const& value) {
  std::ostringstream os;
  os.precision(12);
  os << value;
  return os.str();
}

/// Collects the library's trace lines, as "[level] text".
class TraceLog {
 public:
  TraceLog() {
    Vel::traceSinkIs([this](Vel::TraceLine const& line) {
      all.push_back(line);
      texts.push_back("[" + std::to_string(line.level) + "] " + line.text);
      if (hook) hook(line);
    });
    levels({1, 2, 3, 4, 5, 6, 7, 8});
  }
  ~TraceLog() {
    Vel::traceSinkIs({});
    handle().levelsDel();
  }
  TraceLog(TraceLog const&) = delete;

  static Vel::TraceHandle& handle() { return Vel::TraceHandle::find("Pim::JoinPrune"); }
  void levels(std::vector<U32> const& on) {
    handle().levelsDel();
    for (U32 const level : on) handle().levelIs(level, true);
  }
  void clear() {
    all.clear();
    texts.clear();
  }
  /// Hands over what has come since the last time.
  std::vector<std::string> take() {
    auto taken = std::move(texts);
    clear();
    return taken;
  }
  /// Only the lines that contain a text.
  std::vector<std::string> takeWith(std::string_view part) {
    std::vector<std::string> some;
    for (auto const& line : take())
      if (line.find(part) != line.npos) some.push_back(line);
    return some;
  }

  std::vector<Vel::TraceLine> all;
  std::vector<std::string> texts;
  std::function<void(Vel::TraceLine const&)> hook;
};

/// A packet manager that takes `perMessage` sources out of triggered and override data, source by source, or
/// walks on through periodic data, and says what it did.
class PacketManager final : public IO::PamManager {
 public:
  class Transmitter final : public IO::MessageInfo::Notifiee {
   public:
    explicit Transmitter(PacketManager* manager) : manager_(manager) {}
    void onCount() override { manager_->send(*notifier()); }

   private:
    PacketManager* const manager_;
  };

  void start() {
    transmitter_ = Vel::create<Transmitter>(this);
    transmitter_->notifierIs(txMessageInfoIs());
  }
  void stop() {
    if (transmitter_) transmitter_->notifierIs(nullptr);
  }

  /// Whether the transmit record that there is is served.
  bool serving() const {
    return transmitter_ && txMessageInfo() && transmitter_->notifier() == txMessageInfo() &&
           transmitter_->isRegisteredNotifiee();
  }

  U32 perMessage = 1000;
  std::function<void(PacketManager&)> before;  // inside the send, before anything is taken
  std::function<void(PacketManager&)> after;   // inside the send, after the report
  std::function<bool(Packet::JoinPruneMessage::Report&)> instead;  // fills the report; true: nothing is taken
  U32 messages = 0;
  std::vector<std::string> sent;  // "eth0 to 10.0.0.2: (10.9.0.1,239.1.1.1) join, hold 210"
  std::vector<Packet::JoinPruneMessage::Report> reportsBefore;

 private:
  void send(IO::MessageInfo& record) {
    Vel::Ptr<PacketManager> const keep(this);
    ++messages;
    auto const message = record.joinPruneMessage();
    reportsBefore.push_back(message->report());
    if (before) before(*this);
    Packet::JoinPruneMessage::Report report;
    if (!instead || !instead(report)) {
      auto const data = message->joinPruneData();
      std::string const head = text(record.intfId()) + " to " + text(data->upstreamNeighbor()) + ": ";
      std::string const tail = ", hold " + text(data->holdTime());
      if (data->periodic())
        refresh(*data, head, tail, report);
      else
        drain(*data, head, tail, report);
    }
    message->reportIs(report);
    if (after) after(*this);
  }

  void drain(Packet::JoinPruneData& data, std::string const& head, std::string const& tail,
             Packet::JoinPruneMessage::Report& report) {
    for (auto i = data.joinPruneGroupDataIterator(); i; ++i) {
      auto const group = i.ptr();
      if (auto const wildcard = group->wcSourceData(); wildcard && report.sources < perMessage) {
        sent.push_back(head + "(*," + text(group->group()) + ")" + (wildcard->join() ? " join" : " prune") +
                       tail);
        ++report.sources;
        group->wcSourceDataDel();
      }
      Packet::forEachEntry(*group, [&](EntryKind kind, Dova::IpGenAddr const& source) {
        if (isWildcard(kind) || report.sources >= perMessage) return;
        sent.push_back(head + text(RouteKey(source, group->group())) +
                       (flagsOf(kind) & EntryFlags::rpt ? " rpt " : " ") + std::string(actionText(kind)) +
                       tail);
        ++report.sources;
        Packet::removeEntry(*group, kind, source);
      });
      if (report.sources >= perMessage) return;
    }
  }

  // Walks the (S,G) joins of the data, from where the last message ended.
  void refresh(Packet::JoinPruneData& data, std::string const& head, std::string const& tail,
               Packet::JoinPruneMessage::Report& report) {
    std::vector<RouteKey> routes;
    for (auto i = data.joinPruneGroupDataIterator(); i; ++i)
      for (auto s = i->joinedSourceIterator(); s; ++s) routes.emplace_back(s.key(), i.key());
    while (report.sources < perMessage && !routes.empty()) {
      sent.push_back(head + text(routes[next_++ % routes.size()]) + " join" + tail);
      ++report.sources;
    }
  }

  Vel::Ptr<Transmitter> transmitter_;
  std::size_t next_ = 0;
};

/// Notes every callback of a receive record, in order, as "join.riKey=(10.0.0.1,239.1.1.1)".
class RecordLog final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  RecordLog(std::string name, std::vector<std::string>& log) : name_(std::move(name)), log_(log) {}
  void onRiKey() override { note("riKey", notifier()->riKey()); }
  void onUpstreamNeighbor() override { note("upstreamNeighbor", notifier()->upstreamNeighbor()); }
  void onSourceFlags() override { note("sourceFlags", notifier()->sourceFlags()); }
  void onHoldTime() override { note("holdTime", notifier()->holdTime()); }
  void onWcSource() override { note("wcSource", notifier()->wcSource()); }
  void onRxCount() override {
    note("rxCount", notifier()->rxCount());
    if (hook) hook();
  }
  std::function<void()> hook;

 private:
  template <class T>
  void note(char const* attribute, T const& value) {
    log_.push_back(name_ + "." + attribute + "=" + text(value));
  }
  std::string const name_;
  std::vector<std::string>& log_;
};

/// An RP hash that answers as told and notes what it was asked.
class RpHash final : public RpHashComputeStatus {
 public:
  Dova::IpGenAddr rpHashCompute(Dova::IpGenAddr const& group, Dova::IpGenAddr const& rp) override {
    asked.push_back(text(group) + " " + text(rp));
    if (hook) hook();
    return answer ? *answer : rp;
  }
  std::optional<Dova::IpGenAddr> answer;
  std::function<void()> hook;
  std::vector<std::string> asked;
};

/// A filter that denies as told and notes what it was asked.
class Filter final : public JoinPruneFilter {
 public:
  bool deny(Dova::IpGenAddr const& group) const override {
    asked.push_back(text(group));
    if (hook) hook();
    return denied.contains(text(group));
  }
  std::set<std::string> denied;
  std::function<void()> hook;
  mutable std::vector<std::string> asked;
};

struct World {
  World() { periodicStatus(); }

  Vel::Ptr<Intf> intf(std::string_view name, std::string_view address = {}) {
    auto const made = Vel::create<Intf>(Dova::IntfId(name));
    if (!address.empty()) made->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText(address));
    pim->pimIntfIs(made);
    return made;
  }
  Vel::Ptr<Neighbor> neighbor(std::string_view address, Vel::Ptr<Intf> const& on) {
    return pim->pimNeighborIs(addr(address), on);
  }
  Vel::Ptr<Packet::JoinPruneStatus> periodicStatus() {
    if (!status->periodicGroupStatus()) status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
    return status->periodicGroupStatus();
  }
  /// Makes the machine; the transmit record exists and is served.
  Vel::Ptr<JoinPruneMessageSm> start() {
    manager->start();
    machine =
        joinPruneMessageSmFactory(status, filter, pim, rpHash, rxJoin, rxPrune, channel, manager, wheel);
    return machine;
  }
  Vel::Ptr<JoinPruneNeighborSm> sm(std::string_view address) {
    return machine->joinPruneNeighborSm(addr(address));
  }

  Vel::Ptr<Packet::JoinPruneData> triggered(std::string_view n) { return status->triggeredGroup(addr(n)); }
  Vel::Ptr<Packet::JoinPruneData> override_(std::string_view n) { return status->overrideGroup(addr(n)); }
  Vel::Ptr<Packet::JoinPruneData> periodic(std::string_view n) {
    return periodicStatus()->upJoinPrune(addr(n));
  }
  /// Which of a target's three data sets are there: "top", "-" for none of them.
  std::string sets(std::string_view n) {
    std::string const found =
        std::string(triggered(n) ? "t" : "") + (override_(n) ? "o" : "") + (periodic(n) ? "p" : "");
    return found.empty() ? "-" : found;
  }

  void runUntil(Seconds end) {
    while (wheel->timeMin() <= end) {
      time = std::max(time, wheel->timeMin());
      wheel->expire();
    }
    time = std::max(time, end);
    wheel->expire();
  }

  Seconds time = 1000;
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
  Vel::Ptr<JoinPruneStatus> status = joinPruneStatusFactory();
  Vel::Ptr<Filter> filter = Vel::create<Filter>();
  Vel::Ptr<Status> pim = Vel::create<Status>();
  Vel::Ptr<RpHash> rpHash = Vel::create<RpHash>();
  Vel::Ptr<JoinPruneMessageInfo> rxJoin = joinPruneMessageInfoFactory();
  Vel::Ptr<JoinPruneMessageInfo> rxPrune = joinPruneMessageInfoFactory();
  Vel::Ptr<IO::MessageInfo> channel = Vel::create<IO::MessageInfo>();
  Vel::Ptr<PacketManager> manager = Vel::create<PacketManager>();
  Vel::Ptr<JoinPruneMessageSm> machine;
};

/// The group of a data set, made if it is missing.
inline Vel::Ptr<Packet::JoinPruneGroupData> group(Vel::Ptr<Packet::JoinPruneData> const& data,
                                                  std::string_view g) {
  return data->joinPruneGroupDataIs(addr(g));
}

inline Vel::Ptr<Packet::WcSourceData> wildcard(std::string_view rp, bool join = true) {
  return Vel::create<Packet::WcSourceData>(addr(rp), join);
}

using Lines = std::vector<std::string>;

}  // namespace Routing::Pim
