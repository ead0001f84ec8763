// SPDX-License-Identifier: Apache-2.0
// What a world does to the library.
#include <cstdlib>
#include <sstream>

#include "tests/world/World.h"

namespace Routing::Pim::Worlds {

namespace {

Vel::TraceHandle& handle() {
  static auto& found = Vel::TraceHandle::find("Pim::JoinPrune");
  return found;
}

std::string name(Dova::IpGenAddr const& address) { return Names::get().text(Names::get().number(address)); }

bool put(Packet::JoinPruneGroupData& group, Kind kind, Dova::IpGenAddr const& source) {
  switch (kind) {
    case Kind::join:
      return group.joinedSourceIs(source);
    case Kind::prune:
      return group.prunedSourceIs(source);
    case Kind::rptJoin:
      return group.joinedRptSourceIs(source);
    case Kind::rptPrune:
      return group.prunedRptSourceIs(source);
    case Kind::wildcard:
      break;
  }
  return false;
}

bool takeOutOf(Packet::JoinPruneGroupData& group, Kind kind, Dova::IpGenAddr const& source) {
  switch (kind) {
    case Kind::join:
      return group.joinedSourceDel(source);
    case Kind::prune:
      return group.prunedSourceDel(source);
    case Kind::rptJoin:
      return group.joinedRptSourceDel(source);
    case Kind::rptPrune:
      return group.prunedRptSourceDel(source);
    case Kind::wildcard:
      if (!group.wcSourceData()) return false;
      group.wcSourceDataDel();
      return true;
  }
  return false;
}

void tellAgain(Packet::JoinPruneGroupData& group, Kind kind, Dova::IpGenAddr const& source) {
  switch (kind) {
    case Kind::join:
      return group.joinedSourceNotify(source);
    case Kind::prune:
      return group.prunedSourceNotify(source);
    case Kind::rptJoin:
      return group.joinedRptSourceNotify(source);
    case Kind::rptPrune:
      return group.prunedRptSourceNotify(source);
    case Kind::wildcard:
      return;
  }
}

void tellAllAgain(Packet::JoinPruneGroupData& group, Kind kind) {
  switch (kind) {
    case Kind::join:
      return group.joinedSourceNotifyImmediate();
    case Kind::prune:
      return group.prunedSourceNotifyImmediate();
    case Kind::rptJoin:
      return group.joinedRptSourceNotifyImmediate();
    case Kind::rptPrune:
      return group.prunedRptSourceNotifyImmediate();
    case Kind::wildcard:
      return;
  }
}

std::string numberText(Seconds value) {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%.17g", value);
  return digits;
}

}  // namespace

class Library::Transmitter final : public IO::MessageInfo::Notifiee {
 public:
  explicit Transmitter(Library& library) : library_(library) {}
  void onCount() override { serve(library_, Vel::Ptr<IO::MessageInfo>(notifier())); }
  void onNotificationException(Vel::AttributeId) override {
    try {
      throw;
    } catch (ManagerFault const&) {
      library_.note("the manager failed");
    } catch (std::exception const& e) {
      library_.note(std::string("something else failed: ") + e.what());
    }
  }

 private:
  Library& library_;
};

class Library::Filter final : public JoinPruneFilter {
 public:
  explicit Filter(Library& library) : library_(library) {}
  bool deny(Dova::IpGenAddr const& group) const override {
    library_.note("asked for " + name(group));
    return denied.contains(group);
  }
  std::set<Dova::IpGenAddr> denied;

 private:
  Library& library_;
};

class Library::Rps final : public RpHashComputeStatus {
 public:
  explicit Rps(Library& library) : library_(library) {}
  Dova::IpGenAddr rpHashCompute(Dova::IpGenAddr const& group, Dova::IpGenAddr const& rp) override {
    library_.note("asked for the RP of " + name(group) + " instead of " + name(rp));
    auto const known = answers.find(group);
    return known == answers.end() ? rp : known->second;
  }
  std::map<Dova::IpGenAddr, Dova::IpGenAddr> answers;

 private:
  Library& library_;
};

class Library::RecordWatch final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  RecordWatch(Library& library, std::string name) : library_(library), name_(std::move(name)) {}
  void onRiKey() override { library_.note(name_ + ".riKey"); }
  void onUpstreamNeighbor() override { library_.note(name_ + ".upstreamNeighbor"); }
  void onSourceFlags() override { library_.note(name_ + ".sourceFlags"); }
  void onHoldTime() override { library_.note(name_ + ".holdTime"); }
  void onWcSource() override { library_.note(name_ + ".wcSource"); }
  void onRxCount() override { library_.note(name_ + ".rxCount=" + std::to_string(notifier()->rxCount())); }

 private:
  Library& library_;
  std::string const name_;
};

Library::Library()
    : wheel(Vel::create<Zanth::TimerWheel>([this] { return now; })),
      status(joinPruneStatusFactory()),
      pim(Vel::create<Status>()),
      rxJoin(joinPruneMessageInfoFactory()),
      rxPrune(joinPruneMessageInfoFactory()),
      channel(Vel::create<IO::MessageInfo>()),
      pam(Vel::create<IO::PamManager>()),
      filter_(Vel::create<Filter>(*this)),
      rps_(Vel::create<Rps>(*this)),
      transmitter_(Vel::create<Transmitter>(*this)),
      joinWatch_(Vel::create<RecordWatch>(*this, "join")),
      pruneWatch_(Vel::create<RecordWatch>(*this, "prune")) {
  Vel::traceSinkIs([this](Vel::TraceLine const& line) {
    std::string text = line.text;
    // A periodic machine's lines begin with its bare address, right before the handler's name.
    if (text.starts_with("0x")) text.insert(text.find(line.function, 2), 1, '\2');
    happened({static_cast<U8>(line.level), std::move(text)});
  });
  tracesIs(true);
  srand48(0);
  status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  for (U8 i = 0; i < Names::intfs; ++i) intf[i] = Vel::create<Intf>(Names::get().intfId(i));
  joinWatch_->notifierIs(rxJoin);
  pruneWatch_->notifierIs(rxPrune);
  transmitter_->notifierIs(pam->txMessageInfoIs());
}

Library::~Library() {
  Vel::traceSinkIs({});
  handle().levelsDel();
  transmitter_->notifierIs(nullptr);
  joinWatch_->notifierIs(nullptr);
  pruneWatch_->notifierIs(nullptr);
  engine = nullptr;
}

void Library::tracesIs(bool on) {
  for (U32 level = 0; level <= 8; ++level) handle().levelIs(level, on);
}

void Library::fewTraces() {
  for (U32 const level : {7u, 8u}) handle().levelIs(level, false);
}

// --- The manager's side

std::string Library::seen(RecordPtr const& record) const {
  auto const data = record->joinPruneMessage()->joinPruneData();
  auto const report = record->joinPruneMessage()->report();
  return record->intfId().name() + " to " + name(data->upstreamNeighbor()) + ", hold " +
         std::to_string(data->holdTime()) + (data->periodic() ? ", periodic, " : ", ") +
         std::to_string(data->joinPruneGroupDataCount()) + " groups, report " +
         std::to_string(report.sources) + " " + std::to_string(report.suppressedSources) + " " +
         std::to_string(report.filteredSources);
}

std::vector<Entry> Library::entries(DataPtr const& data) const {
  auto const& names = Names::get();
  std::vector<Entry> found;
  for (auto g = data->joinPruneGroupDataIterator(); g; ++g) {
    Addr const group = names.number(g->group());
    auto const add = [&](auto sources, Kind kind) {
      for (; sources; ++sources) found.push_back({group, kind, names.number(sources.key()), false});
    };
    if (auto const wildcard = g->wcSourceData())
      found.push_back({group, Kind::wildcard, names.number(wildcard->address()), wildcard->join()});
    add(g->joinedSourceIterator(), Kind::join);
    add(g->prunedSourceIterator(), Kind::prune);
    add(g->joinedRptSourceIterator(), Kind::rptJoin);
    add(g->prunedRptSourceIterator(), Kind::rptPrune);
  }
  return found;
}

bool Library::takeOut(DataPtr const& data, Entry const& entry) {
  auto const group = data->joinPruneGroupData(Names::get().address(entry.group));
  return group && takeOutOf(*group, entry.kind, Names::get().address(entry.source));
}

void Library::removeEmptyGroups(DataPtr const& data) {
  for (auto g = data->joinPruneGroupDataIterator(); g; ++g)
    if (g->empty()) data->joinPruneGroupDataDel(g.key());
}

// --- Operations

Library::DataPtr Library::find(Operation const& o) const {
  auto const& target = Names::get().address(Names::get().target[o.a]);
  switch (o.sendKind) {
    case SendKind::triggered:
      return status->triggeredGroup(target);
    case SendKind::override:
      return status->overrideGroup(target);
    case SendKind::periodic:
      return status->periodicGroupStatus()->upJoinPrune(target);
  }
  return nullptr;
}

void Library::waitUntil(Seconds end) {
  while (wheel->timeMin() <= end + hair) {
    if (expiries++ >= mostExpiries) return;
    now = std::max(now, wheel->timeMin());
    wheel->expire();
  }
  now = std::max(now, end);
}

void Library::perform(Operation const& o) {
  auto const& names = Names::get();
  auto const& group = names.address(names.group[o.group]);
  auto const& source = names.address(names.source[o.source]);
  auto const& target = names.address(names.target[o.a]);
  auto const& neighbor = names.address(names.neighbor[o.a % Names::neighbors]);
  auto const machine = [&] { return engine ? engine->joinPruneNeighborSm(target) : nullptr; };
  auto const wildcard = [&](bool join) {
    return Vel::create<Packet::WcSourceData>(names.address(names.rp[o.source % Names::rps]), join);
  };
  switch (o.what) {
    case Do::intfUp:
      if (!pim->pimIntf(names.intfId(o.a))) pim->pimIntfIs(intf[o.a]);
      return;
    case Do::intfDown:
      pim->pimIntfDel(names.intfId(o.a));
      return;
    case Do::intfAddress: {
      auto const& address = names.address(names.intfAddress[o.source]);
      U8 const length = static_cast<U8>(address.width() == 0 ? 0 : o.n);
      intf[o.a]->usedAddressWithMaskIs(Dova::IpGenPrefix(address, length));
      return;
    }
    case Do::intfNotify:
      intf[o.a]->usedAddressWithMaskNotify();
      return;
    case Do::intfHold:
      intf[o.a]->joinPruneHoldTimeIs(static_cast<U16>(o.n));
      return;
    case Do::intfInterval:
      intf[o.a]->joinPruneIntervalIs(o.n);
      return;
    case Do::intfOverride:
      intf[o.a]->usedOverrideIntervalInSecondsIs(o.x);
      return;
    case Do::intfRenew: {
      auto const old = intf[o.a];
      auto const renewed = Vel::create<Intf>(names.intfId(o.a));
      renewed->usedAddressWithMaskIs(old->usedAddressWithMask());
      renewed->joinPruneHoldTimeIs(old->joinPruneHoldTime());
      renewed->joinPruneIntervalIs(old->joinPruneInterval());
      renewed->usedOverrideIntervalInSecondsIs(old->usedOverrideIntervalInSeconds());
      intf[o.a] = renewed;
      if (pim->pimIntf(names.intfId(o.a))) pim->pimIntfIs(renewed);
      return;
    }
    case Do::neighborUp:
      if (!pim->pimNeighbor(neighbor)) pim->pimNeighborIs(neighbor, intf[o.group]);
      return;
    case Do::neighborDown:
      pim->pimNeighborDel(neighbor);
      return;
    case Do::neighborAgain:
      pim->pimNeighborNotify(neighbor);
      return;
    case Do::resync:
      pim->pimIntfNotifyImmediate();
      for (auto const& id : {names.intfId(0), names.intfId(1), names.intfId(2)}) pim->pimIntfNotify(id);
      return;
    case Do::add: {
      auto const data = find(o);
      if (!data) return;
      auto const g = data->joinPruneGroupDataIs(group);
      if (o.kind == Kind::wildcard)
        g->wcSourceDataIs(wildcard(o.n != 0));
      else
        put(*g, o.kind, source);
      return;
    }
    case Do::remove: {
      auto const data = find(o);
      auto const g = data ? data->joinPruneGroupData(group) : nullptr;
      if (!g || !takeOutOf(*g, o.kind, source)) return;
      if (g->empty() && !machine()) data->joinPruneGroupDataDel(group);
      return;
    }
    case Do::groupAdd:
      if (auto const data = find(o)) data->joinPruneGroupDataIs(group);
      return;
    case Do::groupDel:
      if (auto const data = find(o)) data->joinPruneGroupDataDel(group);
      return;
    case Do::groupFilled: {
      auto const data = find(o);
      if (!data || data->joinPruneGroupData(group)) return;
      auto const made = data->newJoinPruneGroupData(group);
      if (o.kind == Kind::wildcard)
        made->wcSourceDataIs(wildcard(o.n % 2 != 0));
      else
        for (U32 i = 0; i < Names::sources; ++i)
          if (o.n >> i & 1) put(*made, o.kind, names.address(names.source[i]));
      if (o.x == 0)
        data->joinPruneGroupDataNotify(group);
      else
        data->joinPruneGroupDataNotifyImmediate();
      return;
    }
    case Do::groupsAgain:
      if (auto const data = find(o)) data->joinPruneGroupDataNotifyImmediate();
      return;
    case Do::sourceAgain: {
      auto const data = find(o);
      if (auto const g = data ? data->joinPruneGroupData(group) : nullptr) tellAgain(*g, o.kind, source);
      return;
    }
    case Do::sourcesAgain: {
      auto const data = find(o);
      if (auto const g = data ? data->joinPruneGroupData(group) : nullptr) tellAllAgain(*g, o.kind);
      return;
    }
    case Do::dataMake:
      if (o.sendKind == SendKind::triggered)
        status->triggeredGroupIs(target);
      else if (o.sendKind == SendKind::override)
        status->overrideGroupIs(target);
      else
        status->periodicGroupStatus()->upJoinPruneIs(target);
      return;
    case Do::dataDel:
      if (o.sendKind == SendKind::triggered)
        status->triggeredGroupDel(target);
      else if (o.sendKind == SendKind::override)
        status->overrideGroupDel(target);
      else
        status->periodicGroupStatus()->upJoinPruneDel(target);
      return;
    case Do::receive: {
      auto const message = Vel::create<JoinPruneMessage>();
      auto const data = Vel::create<Packet::JoinPruneData>(target);
      data->holdTimeIs(static_cast<U16>(o.x));
      for (auto const& entry : receivedEntries(o.n)) {
        auto const g = data->joinPruneGroupDataIs(names.address(names.group[entry.group]));
        if (entry.kind == Kind::wildcard)
          g->wcSourceDataIs(Vel::create<Packet::WcSourceData>(
              names.address(names.rp[entry.source % Names::rps]), entry.join));
        else
          put(*g, entry.kind, names.address(names.source[entry.source]));
      }
      message->joinPruneDataIs(data);
      channel->joinPruneMessageIs(message);
      channel->countInc(1);
      return;
    }
    case Do::rp:
      rps_->answers.emplace(group,
                            o.source < Names::rps ? names.address(names.rp[o.source]) : Dova::IpGenAddr());
      return;
    case Do::deny:
      if (o.n != 0)
        filter_->denied.insert(group);
      else
        filter_->denied.erase(group);
      return;
    case Do::wait:
      waitUntil(now + o.x);
      return;
    case Do::waitNext:
      if (wheel->timeMin() != Vel::never) waitUntil(std::max(now, wheel->timeMin()));
      return;
    case Do::busy:
      now += o.x;
      return;
    case Do::seed:
      srand48(static_cast<long>(o.n));
      return;
    case Do::quantum:
      if (auto const m = machine()) m->attributeIs("loopQuantum", numberText(o.x));
      return;
    case Do::interval:
      if (auto const m = machine()) m->attributeIs("triggeredInterval", numberText(o.x));
      return;
    case Do::diag:
      if (engine) engine->attributeIs("diagUpJoinCount", o.n != 0 ? "true" : "false");
      return;
    case Do::start:
      if (!engine)
        engine = joinPruneMessageSmFactory(status, filter_, pim, rps_, rxJoin, rxPrune, channel, pam, wheel);
      return;
    case Do::drop:
      // As in a program: the machine cannot be found any more while it is taken down.
      std::exchange(engine, nullptr);
      return;
    case Do::hold:
      if (auto const m = machine()) held.push_back(m);
      return;
    case Do::release:
      // As in a program: a machine that is destroyed may call the owner of the last reference once more.
      std::exchange(held, {});
      return;
    case Do::temper:
      manager.temperIs(o);
      return;
    case Do::record:
      if (o.n == 0) {
        pam->txMessageInfoDel();
      } else if (!pam->txMessageInfo()) {
        transmitter_->notifierIs(pam->txMessageInfoIs());
      }
      return;
    case Do::count_:
      return;
  }
}

}  // namespace Routing::Pim::Worlds
