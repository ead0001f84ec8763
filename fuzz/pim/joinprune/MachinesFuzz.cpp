// SPDX-License-Identifier: Apache-2.0
// Bytes as a sequence of operations on the machines: interfaces, neighbors, data, received messages, time,
// removal. Any callback may perform more of them in the middle of another, or throw; the packet manager does
// what it likes. What the agent's rules in the README forbid is not done. After each operation the machines
// must agree with their inputs.
#include <array>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "fuzz/Fuzz.h"
#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/model/packet/GroupEntries.h"
#include "runtime/vel/Trace.h"

namespace {

using namespace Routing::Pim;
using Dova::IpGenAddr;
using Fuzz::Input;
using Data = Packet::JoinPruneData;
using GroupData = Packet::JoinPruneGroupData;

constexpr std::string_view intfNames[] = {"eth0", "eth1", "eth2"};
constexpr std::string_view unicasts[] = {"10.0.0.1", "10.0.0.2", "10.0.0.3",
                                         "10.0.0.4", "fe80::1",  "fe80::2"};
constexpr std::string_view multicasts[] = {"239.1.1.1", "239.1.1.2", "239.1.1.3", "ff0e::1"};
constexpr std::string_view sources[] = {"10.9.0.1", "10.9.0.2", "10.9.0.3", "2001:db8::1"};
constexpr U32 intervals[] = {1, 2, 10, 60};

template <std::size_t size>
IpGenAddr addressOf(U8 n, std::string_view const (&all)[size]) {
  static std::map<std::string_view, IpGenAddr> parsed;
  auto const text = all[n % size];
  auto const found = parsed.find(text);
  return found != parsed.end() ? found->second : parsed.emplace(text, IpGenAddr(text)).first->second;
}

// Where an operation may happen in the middle of another.
enum class Place : U8 {
  intf,
  neighbor,
  dataSet,
  group,
  source,
  record,
  machine,
  neighborSm,
  message,
  filter,
  rpHash,
  sendBefore,
  sendBetween,
  sendAfter,
  trace,
  zeroReferences,
  count
};

class World {
 public:
  explicit World(Input& input);
  ~World();

  void run() {
    while (input_) {
      operation();
      requireAgreement();
    }
  }

  // Called from the callbacks: performs what has been ordered for the place, and may throw.
  void interrupt(Place place);

 private:
  class Manager;
  class Filter;
  class RpHash;
  class StatusWatch;
  class SetWatch;
  class DataWatch;
  class GroupWatch;
  class RecordWatch;
  class MachineWatch;
  class SmWatch;

  void operation();
  void changeIntf();
  void changeNeighbor();
  void changeData();
  void receive();
  void passTime();
  void changeMachine();
  void order();
  void setSomething();
  void requireAgreement() const;

  bool mayChangeData() const { return inData_ == 0 && (changing_ == 0 || dropping_ == 0); }
  void put(GroupData& group, U8 kind, IpGenAddr const& source);
  void takeOut(GroupData& group, U8 kind, IpGenAddr const& source);
  void watch(Vel::Ptr<Data> const& data);
  std::array<Vel::Ptr<Data>, 3> dataOf(IpGenAddr const& target) const;
  void start();

  static constexpr U32 deepest = 4;

  // Counts for as long as it is there.
  class Inside {
   public:
    explicit Inside(U32& count) : count_(count) { ++count_; }
    ~Inside() { --count_; }
    Inside(Inside const&) = delete;

   private:
    U32& count_;
  };

  Input& input_;
  std::array<U8, static_cast<std::size_t>(Place::count)> ordered_{};  // how many operations
  std::array<bool, static_cast<std::size_t>(Place::count)> throwing_{};
  U32 depth_ = 0;
  // While a callback of a data set, group or source runs, the data stays as it is: another reactor on it may
  // not have heard of the change yet.
  U32 inData_ = 0;
  // While a machine is retired, another may have been started on the same data, and each hears of a change in
  // its turn.
  U32 changing_ = 0, dropping_ = 0;
  bool starting_ = false;

  Seconds time_ = 1000;
  Vel::Ptr<Zanth::TimerWheel> const wheel_ = Vel::create<Zanth::TimerWheel>([this] { return time_; });
  Vel::Ptr<Status> pim_ = Vel::create<Status>();
  Vel::Ptr<JoinPruneStatus> const status_ = joinPruneStatusFactory();
  Vel::Ptr<JoinPruneMessageInfo> const rxJoin_ = joinPruneMessageInfoFactory();
  Vel::Ptr<JoinPruneMessageInfo> const rxPrune_ = joinPruneMessageInfoFactory();
  Vel::Ptr<IO::MessageInfo> const channel_ = Vel::create<IO::MessageInfo>();
  Vel::Ptr<Manager> manager_;
  Vel::Ptr<Filter> filter_;
  Vel::Ptr<RpHash> rpHash_;
  Vel::Ptr<JoinPruneMessageSm> machine_;

  std::vector<Vel::Ptr<Vel::Reactor>> watches_;
  std::vector<Vel::Ptr<JoinPruneNeighborSm>> held_;  // held longer than in use
};

// --- What is called ------------------------------------------------------------------------------

// As an agent's: takes some sources out, source by source, and says how many. Or something else.
class World::Manager final : public IO::PamManager {
 public:
  class Transmitter final : public IO::MessageInfo::Notifiee {
   public:
    explicit Transmitter(Manager* manager) : manager_(manager) {}
    void onCount() override {
      Vel::Ptr<Manager> const keep(manager_);
      if (auto const record = notifier()) manager_->send(record);
    }

   private:
    Manager* const manager_;
  };

  explicit Manager(World& world) : world_(world) {}
  void start() {
    if (!transmitter_) transmitter_ = Vel::create<Transmitter>(this);
    transmitter_->notifierIs(txMessageInfoIs());
  }
  void stop() {
    if (transmitter_) transmitter_->notifierIs(nullptr);
    transmitter_ = nullptr;
  }

 private:
  void send(Vel::Ptr<IO::MessageInfo> const& record) {
    Input& input = world_.input_;
    // Each message takes time, so that a report of progress where there is none comes to an end.
    world_.time_ += 0.01;
    world_.interrupt(Place::sendBefore);
    auto const message = record->joinPruneMessage();
    auto const data = message ? message->joinPruneData() : nullptr;
    Packet::JoinPruneMessage::Report report;
    if (!data) return;
    U8 const how = input.u8();
    switch (how % 16) {
      case 10:
        break;  // nothing is sent
      case 11:
        report = {0xffffffff, 0xffffffff, 0xffffffff};
        break;
      case 12:
        drain(*data, how / 16);  // and does not say so
        break;
      case 13:
        report.sources = drain(*data, how / 16);
        throw std::runtime_error("the line is down");
      case 14:
        if (world_.depth_ < deepest) {
          ++world_.depth_;
          record->countInc(1);
          --world_.depth_;
        }
        break;
      case 15:
        report = {0, static_cast<U32>(how / 16), 0};
        world_.time_ += how / 16;
        break;
      default:
        report.sources = data->periodic() ? how / 16 + 1 : drain(*data, how / 16 + 1);
        break;
    }
    message->reportIs(report);
    world_.interrupt(Place::sendAfter);
  }

  U32 drain(Data& data, U32 most) {
    U32 taken = 0;
    if (data.periodic()) return taken;
    for (auto i = data.joinPruneGroupDataIterator(); i && taken < most; ++i) {
      auto const group = i.ptr();
      if (group->wcSourceData() && taken < most) {
        ++taken;
        group->wcSourceDataDel();
      }
      Packet::forEachEntry(*group, [&](EntryKind kind, IpGenAddr const& source) {
        if (isWildcard(kind) || taken >= most) return;
        ++taken;
        Packet::removeEntry(*group, kind, source);
        world_.interrupt(Place::sendBetween);
      });
      if (group->empty() && data.joinPruneGroupData(group->group()) == group)
        data.joinPruneGroupDataDel(group->group());
    }
    return taken;
  }

  World& world_;
  Vel::Ptr<Transmitter> transmitter_;
};

class World::Filter final : public JoinPruneFilter {
 public:
  explicit Filter(World& world) : world_(world) {}
  bool deny(IpGenAddr const& group) const override {
    world_.interrupt(Place::filter);
    return group == addressOf(1, multicasts);
  }

 private:
  World& world_;
};

class World::RpHash final : public RpHashComputeStatus {
 public:
  explicit RpHash(World& world) : world_(world) {}
  IpGenAddr rpHashCompute(IpGenAddr const&, IpGenAddr const& rp) override {
    world_.interrupt(Place::rpHash);
    return world_.input_.flag() ? IpGenAddr("10.9.9.9") : rp;
  }

 private:
  World& world_;
};

class World::StatusWatch final : public Status::NotifieeConst {
 public:
  explicit StatusWatch(World& world) : world_(world) {}
  void onPimIntf(Dova::IntfId) override { world_.interrupt(Place::intf); }
  void onPimNeighbor(IpGenAddr) override { world_.interrupt(Place::neighbor); }

 private:
  World& world_;
};

class World::GroupWatch final : public GroupData::NotifieeConst {
 public:
  GroupWatch(World& world, Vel::Ptr<GroupData const> const& group) : world_(world) {
    isNondestructingIs(true);
    notifierIs(group);
  }
  void onJoinedSource(IpGenAddr) override { tell(); }
  void onPrunedSource(IpGenAddr) override { tell(); }
  void onJoinedRptSource(IpGenAddr) override { tell(); }
  void onPrunedRptSource(IpGenAddr) override { tell(); }
  void onWcSourceData() override { tell(); }
  void onZeroReferences() override { world_.interrupt(Place::zeroReferences); }

 private:
  void tell() {
    Inside const inside(world_.inData_);
    world_.interrupt(Place::source);
  }
  World& world_;
};

class World::DataWatch final : public Data::NotifieeConst {
 public:
  DataWatch(World& world, Vel::Ptr<Data const> const& data) : world_(world) {
    isNondestructingIs(true);
    notifierIs(data);
  }
  void onJoinPruneGroupData(IpGenAddr group) override {
    // Before the machine's reactor or behind it, as this one is on the data.
    if (auto const found = notifier() ? notifier()->joinPruneGroupData(group) : nullptr)
      world_.watches_.push_back(Vel::create<GroupWatch>(world_, found));
    Inside const inside(world_.inData_);
    world_.interrupt(Place::group);
  }
  void onHoldTime() override { world_.interrupt(Place::message); }
  void onZeroReferences() override { world_.interrupt(Place::zeroReferences); }

 private:
  World& world_;
};

// The data sets come and go with the targets.
class World::SetWatch final : public JoinPruneStatus::NotifieeConst {
 public:
  explicit SetWatch(World& world) : world_(world) {}
  void onTriggeredGroup(IpGenAddr target) override { tell(notifier()->triggeredGroup(target)); }
  void onOverrideGroup(IpGenAddr target) override { tell(notifier()->overrideGroup(target)); }

 private:
  void tell(Vel::Ptr<Data const> const& data) {
    if (data) world_.watches_.push_back(Vel::create<DataWatch>(world_, data));
    world_.interrupt(Place::dataSet);
  }
  World& world_;
};

class World::RecordWatch final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  explicit RecordWatch(World& world) : world_(world) {}
  void onRiKey() override { world_.interrupt(Place::record); }
  void onRxCount() override { world_.interrupt(Place::record); }

 private:
  World& world_;
};

class World::SmWatch final : public JoinPruneNeighborSm::NotifieeConst {
 public:
  SmWatch(World& world, Vel::Ptr<JoinPruneNeighborSm const> const& sm) : world_(world) {
    isNondestructingIs(true);
    notifierIs(sm);
  }
  void onNumPeriodicRoutes() override { tell(); }
  void onTriggeredGroupData(IpGenAddr) override { tell(); }
  void onOverrideGroupData(IpGenAddr) override { tell(); }
  void onPeriodicGroupData(IpGenAddr) override { tell(); }
  void onTriggeredTimer() override { world_.interrupt(Place::neighborSm); }
  void onInitialized() override { world_.interrupt(Place::neighborSm); }
  void onZeroReferences() override { world_.interrupt(Place::zeroReferences); }

 private:
  // The machine is in the middle of hearing of its data.
  void tell() {
    Inside const inside(world_.inData_);
    world_.interrupt(Place::neighborSm);
  }
  World& world_;
};

class World::MachineWatch final : public JoinPruneMessageSm::NotifieeConst {
 public:
  MachineWatch(World& world, Vel::Ptr<JoinPruneMessageSm const> const& machine) : world_(world) {
    isNondestructingIs(true);
    notifierIs(machine);
  }
  void onJoinPruneNeighborSm(IpGenAddr address) override {
    if (auto const sm = notifier() ? notifier()->joinPruneNeighborSm(address) : nullptr)
      world_.watches_.push_back(Vel::create<SmWatch>(world_, sm));
    world_.interrupt(Place::machine);
  }
  void onPimIntf(Dova::IntfId) override { world_.interrupt(Place::machine); }
  void onInitialized() override { world_.interrupt(Place::machine); }
  void onTxMessage() override { world_.interrupt(Place::message); }
  void onZeroReferences() override { world_.interrupt(Place::zeroReferences); }

 private:
  World& world_;
};

// --- Life ----------------------------------------------------------------------------------------

World::World(Input& input) : input_(input) {
  Vel::traceSinkIs([this](Vel::TraceLine const& line) {
    // The framework's own line says that a callback threw, maybe one of the data's: the next reactor has not
    // been told.
    U32 elsewhere = 0;
    Inside const inside(line.handle == "Vel" ? inData_ : elsewhere);
    interrupt(Place::trace);
  });
  U8 const how = input.u8();
  for (U32 level : {1u, 2u, 7u, 8u})
    if (how & 1) Vel::TraceHandle::find("Pim::JoinPrune").levelIs(level, true);
  if (how & 2) status_->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  manager_ = Vel::create<Manager>(*this);
  if (how & 4) filter_ = Vel::create<Filter>(*this);
  if (how & 8) rpHash_ = Vel::create<RpHash>(*this);
  manager_->start();
  auto const watchOn = [this](auto const& watch, auto const& entity) {
    watch->notifierIs(entity);
    watches_.push_back(watch);
  };
  if (how & 16) watchOn(Vel::create<StatusWatch>(*this), pim_);
  if (how & 32) watchOn(Vel::create<SetWatch>(*this), status_);
  watchOn(Vel::create<RecordWatch>(*this), rxJoin_);
  watchOn(Vel::create<RecordWatch>(*this), rxPrune_);
  if (how & 64) start();
  if (!(how & 16)) watchOn(Vel::create<StatusWatch>(*this), pim_);
  if (!(how & 32)) watchOn(Vel::create<SetWatch>(*this), status_);
}

World::~World() {
  ordered_ = {};
  throwing_ = {};
  manager_->stop();
  machine_ = nullptr;
  held_.clear();
  for (auto const& watch : std::exchange(watches_, {})) watch->isRegisteredNotifieeIs(false);
  Vel::TraceHandle::find("Pim::JoinPrune").levelsDel();
  Vel::traceSinkIs({});
}

void World::interrupt(Place place) {
  auto const at = static_cast<std::size_t>(place);
  if (depth_ >= deepest) return;
  ++depth_;
  for (; ordered_[at] > 0 && input_; --ordered_[at]) operation();
  --depth_;
  if (std::exchange(throwing_[at], false)) throw std::runtime_error("from a callback");
}

// --- Operations ----------------------------------------------------------------------------------

void World::operation() {
  switch (input_.u8() % 16) {
    case 0:
    case 1:
      return changeIntf();
    case 2:
    case 3:
      return changeNeighbor();
    case 4:
    case 5:
    case 6:
    case 7:
    case 8:
      return changeData();
    case 9:
      return receive();
    case 10:
    case 11:
      return passTime();
    case 12:
      return changeMachine();
    case 13:
    case 14:
      return order();
    default:
      return setSomething();
  }
}

void World::changeIntf() {
  U8 const how = input_.u8();
  Dova::IntfId const id(intfNames[how % 3]);
  auto const keep = pim_;
  auto intf = pim_->pimIntf(id);
  switch (how / 3 % 8) {
    case 0:
      pim_->pimIntfDel(id);
      break;
    case 1: {  // another object
      auto const made = Vel::create<Intf>(id);
      made->usedAddressWithMaskIs(Dova::IpGenPrefix(addressOf(input_.u8(), unicasts), 24));
      pim_->pimIntfIs(made);
      break;
    }
    case 2:
      if (intf) intf->usedAddressWithMaskNotify();
      break;
    case 3:
      if (intf) intf->usedAddressWithMaskIs({});
      break;
    case 4:
      if (intf) intf->joinPruneIntervalIs(intervals[input_.u8() % 4]);
      break;
    case 5:
      if (intf) intf->joinPruneHoldTimeIs(input_.u8());
      break;
    default:
      if (!intf) intf = pim_->pimIntfIs(id);
      intf->usedAddressWithMaskIs(Dova::IpGenPrefix(addressOf(input_.u8(), unicasts), 24));
  }
}

void World::changeNeighbor() {
  U8 const how = input_.u8();
  IpGenAddr const address = addressOf(how, unicasts);
  if (how / 8 % 4 == 0) {
    pim_->pimNeighborDel(address);
  } else if (auto const intf = pim_->pimIntf(Dova::IntfId(intfNames[how / 32 % 3]))) {
    try {
      pim_->pimNeighborIs(address, intf);
    } catch (Vel::RangeException const&) {  // it is on another interface
      pim_->pimNeighborDel(address);
    }
  }
}

std::array<Vel::Ptr<Data>, 3> World::dataOf(IpGenAddr const& target) const {
  auto const periodic = status_->periodicGroupStatus();
  return {status_->triggeredGroup(target), status_->overrideGroup(target),
          periodic ? periodic->upJoinPrune(target) : nullptr};
}

constexpr EntryKind kindsByNumber[] = {EntryKind::sourceJoin,    EntryKind::sourcePrune,
                                       EntryKind::sourceRptJoin, EntryKind::sourceRptPrune,
                                       EntryKind::wildcardJoin,  EntryKind::wildcardPrune};

void World::put(GroupData& group, U8 kind, IpGenAddr const& source) {
  Packet::addEntry(group, kindsByNumber[kind % 6], source);
}

void World::takeOut(GroupData& group, U8 kind, IpGenAddr const& source) {
  switch (kind % 6) {
    case 4:
      group.wcSourceDataDel();
      break;
    case 5:
      group.joinedSourceDelAll();
      break;
    default:
      Packet::removeEntry(group, kindsByNumber[kind % 6], source);
      break;
  }
}

void World::changeData() {
  U8 const how = input_.u8(), what = input_.u8();
  if (!mayChangeData()) return;
  Inside const inside(changing_);
  IpGenAddr const target = addressOf(how, unicasts);
  auto const data = dataOf(target)[how / 8 % 3];
  if (!data) return;
  IpGenAddr const group = addressOf(what, multicasts);
  U8 const kind = what / 4 % 6;
  IpGenAddr const source = addressOf(what / 24, sources);
  if (how < 160) {
    put(*data->joinPruneGroupDataIs(group), kind, source);
  } else if (auto const found = data->joinPruneGroupData(group)) {
    takeOut(*found, kind, source);
    // Where there is a machine, emptied groups are its own to remove.
    if (found->empty() && data->joinPruneGroupData(group) == found &&
        !(machine_ && machine_->joinPruneNeighborSm(target)))
      data->joinPruneGroupDataDel(group);
  }
}

void World::receive() {
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  auto const data = Vel::create<Data>(addressOf(input_.u8(), unicasts));
  U8 const how = input_.u8();
  if (how != 0) message->joinPruneDataIs(data);
  data->holdTimeIs(how);
  for (U32 left = how % 8; left > 0; --left) {
    U8 const what = input_.u8();
    put(*data->joinPruneGroupDataIs(addressOf(what, multicasts)), what / 4 % 6,
        addressOf(what / 24, sources));
  }
  channel_->joinPruneMessageIs(how == 1 ? nullptr : message);
  channel_->intfIdIs(Dova::IntfId(intfNames[how % 3]));
  channel_->countInc(1);
}

void World::passTime() {
  U8 const how = input_.u8();
  // Timers send, and sending changes the data.
  if (!mayChangeData()) return;
  Inside const inside(changing_);
  if (how & 1)
    time_ += how / 64.0;
  else if (wheel_->timeMin() < Vel::never)
    time_ = std::max(time_, wheel_->timeMin() + (how & 2 ? 100 : 0));
  wheel_->expire();
}

void World::start() {
  // One at a time: a machine that is just being made is not replaced by another.
  if (std::exchange(starting_, true)) return;
  auto const made = joinPruneMessageSmFactory(status_, filter_, pim_, rpHash_, rxJoin_, rxPrune_, channel_,
                                              manager_, wheel_);
  starting_ = false;
  machine_ = made;
  watches_.push_back(Vel::create<MachineWatch>(*this, machine_));
}

void World::changeMachine() {
  switch (input_.u8() % 4) {
    case 0: {
      Inside const inside(dropping_);
      machine_ = nullptr;
      break;
    }
    case 1: {
      auto const dropped = std::exchange(held_, {});  // whose end may have another one held
      break;
    }
    case 2:
      if (machine_) {
        if (auto const sm = machine_->joinPruneNeighborSm(addressOf(input_.u8(), unicasts)))
          held_.push_back(sm);
      }
      break;
    default:
      if (!machine_) start();
  }
}

void World::order() {
  auto const at = input_.u8() % ordered_.size();
  U8 const how = input_.u8();
  ordered_[at] = static_cast<U8>(how % 4);
  throwing_[at] = how & 8;
}

void World::setSomething() {
  U8 const how = input_.u8();
  auto const sm = machine_ ? machine_->joinPruneNeighborSm(addressOf(how / 8, unicasts)) : nullptr;
  switch (how % 8) {
    case 0:
      manager_->stop();
      break;
    case 1:
      manager_->start();
      break;
    case 2:
      manager_->txMessageInfoDel();
      break;
    case 3:
      if (!status_->periodicGroupStatus() && !machine_)
        status_->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
      break;
    case 4:
      if (sm) sm->loopQuantumIs((input_.u8() % 4) / 20.0);
      break;
    case 5:
      if (sm) sm->triggeredIntervalIs((input_.u8() % 4) / 4.0);
      break;
    case 6:
      if (machine_) machine_->handleNeighbor();
      break;
    case 7:
      pim_->pimIntfNotify(Dova::IntfId(intfNames[how / 8 % 3]));
      break;
  }
}

// --- What must hold after each operation -----------------------------------------------------------

void World::requireAgreement() const {
  FUZZ_REQUIRE(depth_ == 0 && inData_ == 0);
  FUZZ_REQUIRE(!std::isnan(wheel_->timeMin()));
  if (!machine_) return;
  FUZZ_REQUIRE(machine_->initialized());
  for (auto i = machine_->joinPruneNeighborSmIterator(); i; ++i) {
    auto const sm = i.ptr();
    FUZZ_REQUIRE(sm->parentSm() == machine_.get());
    FUZZ_REQUIRE(sm->initialized());
    auto const data = dataOf(i.key());
    // To walk them makes the reactors of the groups, without which the machine mostly works.
    bool const walks = wheel_->now() - std::floor(wheel_->now()) < 0.5;
    auto const agrees = [walks](auto const& set, auto const& reactor, U32 count, auto const& begin) {
      FUZZ_REQUIRE((reactor ? reactor->notifier() : nullptr) == set);
      FUZZ_REQUIRE(count == (set ? set->joinPruneGroupDataCount() : 0));
      if (!walks) return;
      U32 watched = 0;
      auto groups = begin();
      for (; groups; ++groups, ++watched)
        FUZZ_REQUIRE(set && set->joinPruneGroupData(groups.key()) == groups->notifier());
      FUZZ_REQUIRE(watched == (set ? set->joinPruneGroupDataCount() : 0));
    };
    agrees(data[0], sm->triggeredGroup(), sm->triggeredGroupDataCount(),
           [&] { return sm->triggeredGroupDataIterator(); });
    agrees(data[1], sm->overrideGroup(), sm->overrideGroupDataCount(),
           [&] { return sm->overrideGroupDataIterator(); });
    agrees(data[2], sm->periodicGroup(), sm->periodicGroupDataCount(),
           [&] { return sm->periodicGroupDataIterator(); });
    U32 routes = 0, pending[2] = {};
    for (int channel = 0; channel < 2; ++channel)
      for (auto const& group : data[static_cast<std::size_t>(channel)]->joinPruneGroupDataIterator())
        pending[channel] += group.routes();
    if (data[2])
      for (auto const& group : data[2]->joinPruneGroupDataIterator()) routes += group.routes();
    FUZZ_REQUIRE(sm->numPeriodicRoutes() == routes);
    // Nothing that is to be sent is forgotten.
    FUZZ_REQUIRE(pending[0] == 0 || sm->triggeredTimer()->armed());
    FUZZ_REQUIRE(pending[1] == 0 || sm->overrideTimer()->armed());
    FUZZ_REQUIRE(routes == 0 || sm->joinPrunePeriodicTimerSm()->periodicTimer()->armed());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* data, std::size_t size) {
  Input input(data, size);
  World world(input);
  world.run();
  return 0;
}
