// SPDX-License-Identifier: Apache-2.0
#include "tests/world/Model.h"

#include <algorithm>
#include <cstdio>

namespace Routing::Pim::Worlds {

namespace {

std::string const& text(Addr a) { return Names::get().text(a); }

constexpr char const* sendKindWords[] = {"Triggered", "Override", "Periodic"};

constexpr char const* sourceHandlers[] = {"handleJoinedSource", "handlePrunedSource", "handleJoinedRptSource",
                                          "handlePrunedRptSource", "handleWcSource"};

char const* sourceHandler(Kind kind) { return sourceHandlers[static_cast<U32>(kind)]; }

std::string printed(Seconds value) {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%.12g", value);
  return digits;
}

U32 index(SendKind sendKind) { return static_cast<U32>(sendKind); }

}  // namespace

// --- Groups

bool Model::Group::has(Kind kind, Addr source) const {
  switch (kind) {
    case Kind::join:
      return joined.contains(source);
    case Kind::prune:
      return pruned.contains(source);
    case Kind::rptJoin:
      return rptJoined.contains(source);
    case Kind::rptPrune:
      return rptPruned.contains(source);
    case Kind::wildcard:
      return wildcard.has_value();
  }
  return false;
}

bool Model::Group::put(Kind kind, Addr source) {
  switch (kind) {
    case Kind::join:
      return joined.insert(source).second;
    case Kind::prune:
      return pruned.insert(source).second;
    case Kind::rptJoin:
      return rptJoined.insert(source).second;
    case Kind::rptPrune:
      return rptPruned.insert(source).second;
    case Kind::wildcard:
      return false;
  }
  return false;
}

bool Model::Group::takeOut(Kind kind, Addr source) {
  switch (kind) {
    case Kind::join:
      return joined.erase(source) != 0;
    case Kind::prune:
      return pruned.erase(source) != 0;
    case Kind::rptJoin:
      return rptJoined.erase(source) != 0;
    case Kind::rptPrune:
      return rptPruned.erase(source) != 0;
    case Kind::wildcard: {
      bool const was = wildcard.has_value();
      wildcard.reset();
      return was;
    }
  }
  return false;
}

// --- Forms. The text between \1 and \2 is the name of an object, which the library prints as its address.

std::string Model::form(Machine const& m) const {
  return said("JoinPruneNeighborSm(", Names::get().intf(m.intf->name), "::", text(m.address), ")::@\1m",
              std::to_string(m.number), "\2::");
}

std::string Model::form(Machine const& m, SendKind sendKind, Addr group) const {
  return said(form(m), sendKindWords[index(sendKind)], "(", text(group), ")::");
}

std::string Model::periodicForm(Machine const& m) const {
  return said("\1p", std::to_string(m.number), "\2");
}

// --- Life

Model::Model() {
  auto const& names = Names::get();
  for (U8 i = 0; i < Names::intfs; ++i)
    intf[i] = std::make_shared<Intf>(Intf{.name = i, .address = names.unknown, .length = 0});
  for (auto* r : {&rxJoin, &rxPrune}) {
    r->source = r->group = r->upstream = r->rp = names.unknown;
    r->name = r == &rxJoin ? "join" : "prune";
  }
  record = servedRecord = std::make_shared<Record>();
}

void Model::start() {
  if (engine) return;
  engine = std::make_shared<Engine>();
  EnginePtr const e = engine;
  e->message = std::make_shared<Message>();
  for (auto const& [name, i] : statusIntfs) followIntf(*e, i);
  trace(8, "JoinPruneMessageSm::handleInitialized()");
  trace(2, "JoinPruneMessageSm::handleNeighbor()");
  for (auto const& [address, n] : statusNeighbors) handleNeighbor(address);
  auto& periodic = status[index(SendKind::periodic)];
  for (auto i = periodic.begin(); i != periodic.end();) {
    Addr const address = i->first;
    auto const m = e->machines.find(address);
    bool const ofIntf = m != e->machines.end() && !m->second->neighbor;
    if (!statusNeighbors.contains(address) && !ofIntf) {
      trace(2,
            "JoinPruneMessageSm::handleInitialized(), Deleting any pending joins and prunes for deleted "
            "neighbor ",
            text(address));
      handleNeighbor(address);
    }
    i = periodic.upper_bound(address);
  }
  e->initialized = true;
}

void Model::drop() {
  if (!engine) return;
  EnginePtr const e = std::exchange(engine, nullptr);
  while (!e->intfs.empty()) unfollowIntf(*e, e->intfs.begin()->first);
  for (auto const& [address, m] : e->machines) retire(*m);
}

// --- The message machine

Model::DataPtr Model::dataIs(U32 sendKind, Addr target) {
  auto& data = status[sendKind][target];
  if (!data) data = std::make_shared<Data>(Data{.upstream = target, .groups = {}});
  return data;
}

void Model::followIntf(Engine& e, IntfPtr const& i) {
  auto const known = e.intfs.find(i->name);
  if (known == e.intfs.end()) {
    e.intfs[i->name] = {i, Names::get().unknown};
    handleNew(e, i);
  } else if (known->second.intf != i) {
    known->second.intf = i;
    handleDel(e, i->name);
    handleNew(e, i);
  }
}

void Model::unfollowIntf(Engine& e, IntfName name) {
  if (!e.intfs.contains(name)) return;
  handleDel(e, name);
  e.intfs.erase(name);
}

void Model::handleNew(Engine& e, IntfPtr const& i) {
  auto const& name = Names::get().intf(i->name);
  trace(8, "handleNew(", name, ")");
  trace(2, "handleNew(", name, "), Intf up");
  if (e.machines.contains(i->address)) {
    trace(2, "handleNew, Deleting existing SM for ", text(i->address));
    deleteTarget(e, i->address);
  }
  machineIs(e, i->address, nullptr, i);
  e.intfs[i->name].address = i->address;
}

void Model::handleDel(Engine& e, IntfName name) {
  trace(2, "handleDel(", Names::get().intf(name), "), Intf down");
  deleteTarget(e, e.intfs[name].address);
}

void Model::handleUsedAddress(IntfPtr const& i) {
  if (!engine) return;
  auto const known = engine->intfs.find(i->name);
  if (known == engine->intfs.end() || known->second.intf != i) return;
  auto const& name = Names::get().intf(i->name);
  trace(2, "handleUsedAddress(", name, "), Address changed");
  if (known->second.address == i->address) return;
  trace(4, "handleUsedAddress(", name, "), Previous address: ", text(known->second.address),
        ", New address: ", text(i->address));
  handleDel(*engine, i->name);
  handleNew(*engine, i);
}

void Model::deleteTarget(Engine& e, Addr target) {
  machineDel(e, target);
  for (auto& sendKind : status) sendKind.erase(target);
}

void Model::handleNeighbor(Addr address) {
  if (!engine) return;
  std::string const begin = said("JoinPruneMessageSm::handleNeighbor(", text(address), ")");
  trace(8, begin);
  auto const n = statusNeighbors.find(address);
  if (n == statusNeighbors.end()) {
    trace(2, begin, ", Neighbor down");
    doMaybeDeleteNeighbor(address);
    return;
  }
  trace(2, begin, ", Neighbor up");
  if (engine->machines.contains(address)) {
    trace(2, "JoinPruneMessageSm::handleNeighbor, Not creating SM for neighbor ", text(address),
          " because one already exists.  This could be due to the interface having the same interface.");
    return;
  }
  machineIs(*engine, address, n->second, n->second->intf);
}

void Model::doMaybeDeleteNeighbor(Addr address) {
  std::string const begin = said("JoinPruneMessageSm::doMaybeDeleteNeighbor(", text(address), ")");
  trace(8, begin);
  if (statusNeighbors.contains(address)) return;
  auto const m = engine->machines.find(address);
  if (m != engine->machines.end() && !m->second->neighbor) return;
  if (!dataIs(index(SendKind::periodic), address)->groups.empty()) return;
  trace(2, begin, ", deleting neighbor");
  deleteTarget(*engine, address);
}

void Model::machineIs(Engine& e, Addr address, NeighborPtr const& n, IntfPtr const& i) {
  auto const m = std::make_shared<Machine>();
  m->number = ++machinesMade_;
  m->address = address;
  m->neighbor = n;
  m->intf = i;
  for (U32 sendKind = 0; sendKind < sendKinds; ++sendKind) m->data[sendKind] = dataIs(sendKind, address);
  m->overrideInterval = i->overrideInterval;
  m->message = e.message;
  e.machines[address] = m;
  initialize(m);
}

void Model::machineDel(Engine& e, Addr address) {
  auto const found = e.machines.find(address);
  if (found == e.machines.end()) return;
  retire(*found->second);
  e.machines.erase(found);
}

void Model::handleRxMessage(Addr upstream, U16 holdTime, std::map<Addr, GroupPtr> const& groups) {
  if (!engine) return;
  trace(8, "JoinPruneMessageSm::handleRxMessage()");
  for (auto const& [address, g] : groups) {
    bool joinHeader = false, pruneHeader = false;
    auto const write = [&, group = address](bool join, char const* kind, Addr source, U8 flags,
                                            std::optional<Addr> rp = {}) {
      received(join ? rxJoin : rxPrune, kind, join ? joinHeader : pruneHeader, upstream, holdTime, source,
               group, flags, rp);
    };
    for (Addr const source : g->joined) write(true, ", Join", source, 4);
    for (Addr const source : g->pruned) write(false, ", Prune", source, 4);
    note("asked for " + text(address));
    if (denied_.contains(address)) continue;
    if (g->wildcard) {
      Addr const named = g->wildcard->rp;
      Addr const any = Names::get().zero;
      if (!g->wildcard->join) {
        write(false, ", Prune, WC", any, 7, named);
      } else {
        note("asked for the RP of " + text(address) + " instead of " + text(named));
        auto const known = rps_.find(address);
        Addr const rp = known == rps_.end() ? named : known->second;
        if (rp == Names::get().unknown) throw Stopped{"rp.af() != Dova::ipunknown()"};
        if (rp == named)
          write(true, ", Join, WC", any, 7, named);
        else
          trace(2, "JoinPruneMessageSm::handleRxMessage(), RP (", text(rp), ") does not match received RP (",
                text(named), ") for group ", text(address));
      }
    }
    for (Addr const source : g->rptJoined) write(true, ", Join, RPT", source, 5);
    for (Addr const source : g->rptPruned) write(false, ", Prune, RPT", source, 5);
  }
}

void Model::received(Received& r, char const* kind, bool& header, Addr upstream, U16 holdTime, Addr source,
                     Addr group, U8 flags, std::optional<Addr> rp) {
  auto const change = [&](auto& attribute, auto value, char const* name) {
    if (attribute == value) return;
    attribute = value;
    note(r.name + "." + name);
  };
  if (!header) {
    change(r.upstream, upstream, "upstreamNeighbor");
    change(r.holdTime, Seconds{static_cast<Seconds>(holdTime)}, "holdTime");
    header = true;
  }
  if (r.source != source || r.group != group) {
    r.source = source;
    r.group = group;
    note(r.name + ".riKey");
  }
  change(r.flags, flags, "sourceFlags");
  if (rp) change(r.rp, *rp, "wcSource");
  std::string const letters = flags == 4 ? "S" : flags == 5 ? "SR" : "SWR";
  trace(7, "JoinPruneMessageSm::handleRxMessage()", std::string(kind), "(", (flags == 7 ? "*" : text(source)),
        ",", text(group), "), Flags: ", letters, ", Intf: , Neighbor: ", text(r.upstream),
        ", Holdtime: ", printed(r.holdTime));
  ++r.count;
  note(r.name + ".rxCount=" + std::to_string(r.count));
}

// --- A neighbor machine

std::optional<Model::Concerned> Model::concerned(DataPtr const& data) const {
  if (!engine) return {};
  auto const m = engine->machines.find(data->upstream);
  if (m == engine->machines.end()) return {};
  for (U32 sendKind = 0; sendKind < sendKinds; ++sendKind)
    if (m->second->data[sendKind] == data) return Concerned{m->second, static_cast<SendKind>(sendKind)};
  return {};
}

void Model::initialize(MachinePtr const& m) {
  for (U32 sendKind = 0; sendKind < sendKinds; ++sendKind) reconcile(*m, static_cast<SendKind>(sendKind));
  auto const& data = m->data[index(SendKind::periodic)];
  data->periodic = true;
  doUpdateTimer(*m, SendKind::triggered);
  doUpdateTimer(*m, SendKind::override);
  for (auto const& [address, g] : data->groups) {
    if (g->wildcard) m->followers[index(SendKind::periodic)].at(address).wildcardCounted = true;
    routesInc(*m, g->routes());
  }
  trace(2, form(*m), "handleInitialized(), total number of periodic joins and prunes is ",
        std::to_string(m->routes));
  m->initialized = true;
}

// A follower that is there already is pointed at the group; what it has counted stays.
void Model::follow(Machine& m, SendKind sendKind, GroupPtr const& group) {
  m.followers[index(sendKind)][group->address].group = group;
}

void Model::reconcile(Machine& m, SendKind sendKind) {
  auto const& groups = m.data[index(sendKind)]->groups;
  for (auto const& [address, g] : groups) follow(m, sendKind, g);
  std::erase_if(m.followers[index(sendKind)],
                [&groups](auto const& follower) { return !groups.contains(follower.first); });
}

// Whatever group was added or removed, it is the neighbor's address that is looked up.
void Model::handleGroup(MachinePtr const& m, SendKind sendKind) {
  std::string const begin =
      said(form(*m), "handle", sendKindWords[index(sendKind)], "Group(", text(m->address), ")");
  trace(7, begin);
  auto const& groups = m->data[index(sendKind)]->groups;
  if (auto const found = groups.find(m->address); found != groups.end()) {
    if (found->second->routes() == 0) return;
    if (sendKind == SendKind::periodic)
      routesInc(*m, found->second->routes());
    else
      doUpdateTimer(*m, sendKind);
    return;
  }
  trace(7, begin, ": Deleted");
  if (sendKind != SendKind::periodic || !groups.empty()) return;
  if (m->routes != 0) {
    trace(1, begin, ", Num routes: ", std::to_string(m->routes));
    throw Stopped{"false"};
  }
  doMaybeDeleteNeighbor(m->address);
}

void Model::retire(Machine& m) {
  m.retired = true;
  for (auto& timer : m.timers) timer = {};
}

void Model::routesInc(Machine& m, U32 n) {
  if (n == 0) return;
  m.routes += n;
  doUpdatePeriodicTimer(m);
  validate(m);
}

void Model::validate(Machine& m) {
  trace(8, form(m), "validateNumPeriodicRoutes(", std::to_string(m.routes), ")");
  if (!m.initialized || !engine->diag) return;
  U32 sum = 0;
  for (auto const& [address, g] : m.data[index(SendKind::periodic)]->groups) sum += g->routes();
  if (sum == m.routes) return;
  trace(1, form(m), "validateNumPeriodicRoutes, expected: ", std::to_string(sum),
        ", got: ", std::to_string(m.routes));
  throw Stopped{"false"};
}

void Model::groupChanged(DataPtr const& data, Addr group) {
  auto const who = concerned(data);
  if (!who) return;
  if (auto const g = data->groups.find(group); g != data->groups.end())
    follow(*who->machine, who->sendKind, g->second);
  else
    who->machine->followers[index(who->sendKind)].erase(group);
  handleGroup(who->machine, who->sendKind);
}

void Model::groupsChanged(DataPtr const& data) {
  auto const who = concerned(data);
  if (!who) return;
  reconcile(*who->machine, who->sendKind);
  if (who->sendKind == SendKind::periodic) trace(7, form(*who->machine), "handlePeriodicGroup()");
}

Model::GroupPtr Model::groupIs(DataPtr const& data, Addr group) {
  auto const known = data->groups.find(group);
  if (known != data->groups.end()) return known->second;
  auto const made = std::make_shared<Group>(
      Group{.address = group, .joined = {}, .pruned = {}, .rptJoined = {}, .rptPruned = {}, .wildcard = {}});
  data->groups[group] = made;
  groupChanged(data, group);
  return made;
}

void Model::groupDel(DataPtr const& data, Addr group) {
  if (data->groups.erase(group) != 0) groupChanged(data, group);
}

void Model::sourceChanged(DataPtr const& data, GroupPtr const& group, Kind kind, Addr source) {
  auto const who = concerned(data);
  if (!who) return;
  auto const& followers = who->machine->followers[index(who->sendKind)];
  auto const follower = followers.find(group->address);
  if (follower == followers.end() || follower->second.group != group) return;
  if (who->sendKind == SendKind::periodic)
    handlePeriodic(who->machine, group, kind, source);
  else
    handleOnce(who->machine, who->sendKind, group, kind, source);
}

void Model::handleOnce(MachinePtr const& m, SendKind sendKind, GroupPtr const& group, Kind kind,
                       Addr source) {
  std::string const begin = said(form(*m, sendKind, group->address), sourceHandler(kind));
  std::string const key = kind == Kind::wildcard ? "(*,G)" : "(" + text(source) + ")";
  if (kind != Kind::wildcard) trace(7, begin, key);
  if (group->has(kind, source)) {
    doUpdateTimer(*m, sendKind);
    return;
  }
  trace(7, begin, key, ", Sent");
  if (group->routes() != 0) return;
  bool const unsaid = sendKind == SendKind::triggered && (kind == Kind::join || kind == Kind::rptJoin);
  if (!unsaid) trace(7, begin, "(): Finished group ", text(group->address));
  groupDel(m->data[index(sendKind)], group->address);
}

void Model::handlePeriodic(MachinePtr const& m, GroupPtr const& group, Kind kind, Addr source) {
  std::string const begin = said(form(*m, SendKind::periodic, group->address), sourceHandler(kind));
  bool const wildcard = kind == Kind::wildcard;
  auto& follower = m->followers[index(SendKind::periodic)].at(group->address);
  if (group->has(kind, source)) {
    if (wildcard && follower.wildcardCounted) return;
    routesInc(*m, 1);
    if (wildcard) follower.wildcardCounted = true;
    trace(7, begin, "(", text(wildcard ? group->wildcard->rp : source),
          "), added, sources: ", std::to_string(m->routes));
    return;
  }
  trace(7, begin, (wildcard ? "(*,G)" : "(" + text(source) + ")"), ", Deleted");
  if (wildcard) follower.wildcardCounted = false;
  routesInc(*m, ~U32{0});
  if (group->routes() != 0) return;
  trace(7, begin, "(): Deleted group ", text(group->address));
  groupDel(m->data[index(SendKind::periodic)], group->address);
}

// --- Timers

Seconds Model::timeMin() const {
  Seconds first = never;
  if (engine)
    for (auto const& [address, m] : engine->machines)
      for (auto const& timer : m->timers) first = std::min(first, timer.time);
  return first;
}

U32 Model::armedCount() const {
  U32 count = 0;
  if (engine)
    for (auto const& [address, m] : engine->machines)
      for (auto const& timer : m->timers) count += timer.time != never;
  return count;
}

void Model::arm(Machine& m, SendKind sendKind, Seconds time) {
  m.timers[index(sendKind)] = {time, ++armings_};
}

void Model::doUpdateTimer(Machine& m, SendKind sendKind) {
  std::string const begin = said(form(m), "doUpdate", sendKindWords[index(sendKind)], "Timer");
  auto const& data = *m.data[index(sendKind)];
  if (m.timers[index(sendKind)].time != never) {
    trace(7, begin, "(): Timer running");
  } else if (data.groups.empty()) {
    trace(7, begin, "(): Disarming timer");
  } else {
    U16 const holdTime = m.intf->holdTime;
    trace(7, begin, "(): Arming timer, setting holdtime to ", std::to_string(holdTime));
    m.data[index(sendKind)]->holdTime = holdTime;
    arm(m, sendKind,
        now + (sendKind == SendKind::triggered ? m.triggeredInterval : randomDelay(m.overrideInterval)));
  }
}

// drand48() as POSIX describes it.
Seconds Model::randomDelay(Seconds interval) {
  random_ = (random_ * 0x5DEECE66DULL + 0xB) & 0xFFFFFFFFFFFFULL;
  Seconds r = static_cast<Seconds>(random_) / 281474976710656.0;
  if (r < 0.1) r += 0.1;
  return r * interval;
}

void Model::expire() {
  if (expiring_ || !engine) return;
  expiring_ = true;
  struct Due {
    Seconds time;
    U64 armedAs;
    MachinePtr machine;
    SendKind sendKind;
  };
  std::vector<Due> due;
  for (auto const& [address, m] : engine->machines)
    for (U32 sendKind = 0; sendKind < sendKinds; ++sendKind)
      if (auto const& timer = m->timers[sendKind]; timer.time <= now)
        due.push_back({timer.time, timer.armedAs, m, static_cast<SendKind>(sendKind)});
  std::sort(due.begin(), due.end(), [](Due const& a, Due const& b) {
    return std::pair(a.time, a.armedAs) < std::pair(b.time, b.armedAs);
  });
  for (auto const& one : due) {
    auto& timer = one.machine->timers[index(one.sendKind)];
    if (timer.armedAs != one.armedAs) continue;
    timer = {};
    if (one.sendKind == SendKind::periodic)
      handlePeriodicExpiry(one.machine);
    else
      handleOnceExpiry(one.machine, one.sendKind);
  }
  expiring_ = false;
}

Model::RecordPtr Model::prepare(Machine& m, SendKind sendKind) {
  m.message->data = m.data[index(sendKind)];
  if (!record) return nullptr;
  record->message = m.message;
  record->intf = m.intf->name;
  return record;
}

void Model::send(RecordPtr const& r) {
  if (!r) return;
  ++r->count;
  if (servedRecord != r) return;
  try {
    serve(*this, r);
  } catch (ManagerFault const&) {
    note("the manager failed");
  }
}

void Model::handleOnceExpiry(MachinePtr const& m, SendKind sendKind) {
  std::string const begin = said(form(*m), "handle", sendKindWords[index(sendKind)], "TimerExpiry");
  trace(7, begin, "()");
  Seconds const deadline = now + m->loopQuantum;
  prepare(*m, sendKind);
  auto const& groups = m->data[index(sendKind)]->groups;
  bool done = false;
  while (!groups.empty() && !done) {
    m->message->report = {};
    send(prepare(*m, sendKind));  // the record that there is now
    if (m->retired) return;
    auto const& report = m->message->report;
    done = (report.sources == 0 && report.filteredSources == 0) || now >= deadline;
    if (done && !groups.empty())
      trace(7, begin, "(): Suspending TX after ", std::to_string(report.sources), " sources, ",
            std::to_string(report.filteredSources), " filtered sources");
  }
  doUpdateTimer(*m, sendKind);
}

void Model::doUpdatePeriodicTimer(Machine& m, bool atEndOfExpiry) {
  trace(8, periodicForm(m), "interval()");
  trace(8, periodicForm(m), "numberOfMessages()");
  U64 const routes = m.routes;
  U64 const interval = m.intf->interval;
  U64 const slices = std::clamp<U64>((routes + 999) / 1000, 1, interval * 10);
  m.sliceInterval = static_cast<Seconds>(interval) / static_cast<Seconds>(slices);
  m.sliceRoutes = static_cast<U32>((routes + slices - 1) / slices);
  auto& timer = m.timers[index(SendKind::periodic)];
  if (m.sending || timer.time != never) return;
  m.left.reset();
  if (routes == 0) return;
  Seconds next = m.deadline + m.sliceInterval;
  if (next <= now) next = atEndOfExpiry ? now : now + m.sliceInterval;
  m.deadline = next;
  arm(m, SendKind::periodic, next);
}

void Model::handlePeriodicExpiry(MachinePtr const& m) {
  std::string const begin = said(periodicForm(*m), "handlePeriodicTimerExpiry");
  trace(8, periodicForm(*m), "doResetHoldTime()");
  m->data[index(SendKind::periodic)]->holdTime = m->intf->holdTime;
  trace(8, begin, "()");
  constexpr Seconds quantum = 0.1;  // what the neighbor machine was made with
  Seconds const deadline = now + quantum;
  prepare(*m, SendKind::periodic);
  auto const bound = [&m] { return std::min<U64>(m->sliceRoutes, m->left.value_or(~U64{0})); };
  m->sending = true;
  U64 count = 0, dealtWith = 0;
  while (count < bound()) {
    m->message->report = {};
    send(prepare(*m, SendKind::periodic));
    if (m->retired) return;
    auto const& report = m->message->report;
    U64 const step = report.sources + report.skipped();
    dealtWith += step;
    if (step == 0 || now >= deadline) {
      trace(7, begin, "(): Suspending TX after ", std::to_string(count), " groups, ",
            std::to_string(report.sources), " sources, ", std::to_string(report.suppressedSources),
            " suppressed sources, ", std::to_string(report.filteredSources), " filtered sources");
      break;
    }
    count += step;
  }
  m->sending = false;
  if (count == 0 || count >= bound()) {
    trace(7, begin, "(): Finished TX");
    doUpdatePeriodicTimer(*m, true);
  } else {
    m->left = bound() - std::min(bound(), dealtWith);
    arm(*m, SendKind::periodic, now + 0.1);
  }
}

// --- The manager's side

std::string Model::seen(RecordPtr const& r) const {
  auto const& data = *r->message->data;
  auto const& report = r->message->report;
  return Names::get().intf(*r->intf) + " to " + text(data.upstream) + ", hold " +
         std::to_string(data.holdTime) + (data.periodic ? ", periodic, " : ", ") +
         std::to_string(data.groups.size()) + " groups, report " + std::to_string(report.sources) + " " +
         std::to_string(report.suppressedSources) + " " + std::to_string(report.filteredSources);
}

std::vector<Entry> Model::entries(DataPtr const& data) const {
  std::vector<Entry> found;
  for (auto const& [address, g] : data->groups) {
    auto const add = [&, group = address](auto const& sources, Kind kind) {
      for (Addr const source : sources) found.push_back({group, kind, source, false});
    };
    if (g->wildcard) found.push_back({address, Kind::wildcard, g->wildcard->rp, g->wildcard->join});
    add(g->joined, Kind::join);
    add(g->pruned, Kind::prune);
    add(g->rptJoined, Kind::rptJoin);
    add(g->rptPruned, Kind::rptPrune);
  }
  return found;
}

bool Model::takeOut(DataPtr const& data, Entry const& entry) {
  auto const g = data->groups.find(entry.group);
  if (g == data->groups.end()) return false;
  GroupPtr const group = g->second;
  if (!group->takeOut(entry.kind, entry.source)) return false;
  sourceChanged(data, group, entry.kind, entry.source);
  return true;
}

void Model::removeEmptyGroups(DataPtr const& data) {
  for (auto g = data->groups.begin(); g != data->groups.end();) {
    Addr const address = g->first;
    if (g->second->routes() == 0) groupDel(data, address);
    g = data->groups.upper_bound(address);
  }
}

// --- Operations

Model::DataPtr Model::find(Operation const& o) const {
  auto const& targets = status[index(o.sendKind)];
  auto const found = targets.find(Names::get().target[o.a]);
  return found == targets.end() ? nullptr : found->second;
}

Model::GroupPtr Model::findGroup(Operation const& o) const {
  auto const data = find(o);
  if (!data) return nullptr;
  auto const found = data->groups.find(Names::get().group[o.group]);
  return found == data->groups.end() ? nullptr : found->second;
}

Model::MachinePtr Model::findMachine(Operation const& o) const {
  if (!engine) return nullptr;
  auto const found = engine->machines.find(Names::get().target[o.a]);
  return found == engine->machines.end() ? nullptr : found->second;
}

bool Model::possible(Operation const& o) const {
  auto const& names = Names::get();
  switch (o.what) {
    case Do::intfUp:
      return !statusIntfs.contains(o.a);
    case Do::intfDown:
      return statusIntfs.contains(o.a);
    case Do::neighborUp:
      return !statusNeighbors.contains(names.neighbor[o.a]);
    case Do::neighborDown:
      return statusNeighbors.contains(names.neighbor[o.a]);
    case Do::add:
    case Do::groupAdd:
    case Do::groupsAgain:
    case Do::dataDel:
      return find(o) != nullptr;
    case Do::remove: {
      auto const group = findGroup(o);
      return group && group->has(o.kind, names.source[o.source]);
    }
    case Do::groupDel:
    case Do::sourceAgain:
    case Do::sourcesAgain:
      return findGroup(o) != nullptr;
    case Do::groupFilled:
      return find(o) && !findGroup(o);
    case Do::rp:
      return !rps_.contains(names.group[o.group]);
    case Do::deny:
      return denied_.contains(names.group[o.group]) == (o.n == 0);
    case Do::quantum:
    case Do::interval:
    case Do::hold:
      return findMachine(o) != nullptr;
    case Do::diag:
      return engine != nullptr;
    case Do::start:
      return !engine;
    case Do::drop:
      return engine != nullptr;
    case Do::waitNext:
      return timeMin() != never;
    case Do::record:
      return (record != nullptr) == (o.n == 0);
    default:
      return true;
  }
}

void Model::step(Operation const& operation) {
  events.clear();
  manager.messages = expiries = 0;
  perform(operation);
}

void Model::perform(Operation const& o) {
  auto const& names = Names::get();
  auto const group = names.group[o.group];
  auto const source = names.source[o.source];
  auto const machine = [&] { return findMachine(o); };
  auto const waitUntil = [&](Seconds end) {
    while (timeMin() <= end + hair) {
      if (expiries++ >= mostExpiries) {
        cutShort = true;
        return;
      }
      now = std::max(now, timeMin());
      expire();
    }
    now = std::max(now, end);
  };
  switch (o.what) {
    case Do::intfUp:
      if (statusIntfs.contains(o.a)) return;
      statusIntfs[o.a] = intf[o.a];
      if (engine) followIntf(*engine, intf[o.a]);
      return;
    case Do::intfDown:
      if (statusIntfs.erase(o.a) != 0 && engine) unfollowIntf(*engine, o.a);
      return;
    case Do::intfAddress: {
      Addr const address = names.intfAddress[o.source];
      U8 const length = static_cast<U8>(address == names.unknown ? 0 : o.n);
      if (intf[o.a]->address == address && intf[o.a]->length == length) return;
      intf[o.a]->address = address;
      intf[o.a]->length = length;
      handleUsedAddress(intf[o.a]);
      return;
    }
    case Do::intfNotify:
      handleUsedAddress(intf[o.a]);
      return;
    case Do::intfHold:
      intf[o.a]->holdTime = static_cast<U16>(o.n);
      return;
    case Do::intfInterval:
      intf[o.a]->interval = o.n;
      return;
    case Do::intfOverride:
      intf[o.a]->overrideInterval = o.x;
      return;
    case Do::intfRenew:
      intf[o.a] = std::make_shared<Intf>(*intf[o.a]);
      if (!statusIntfs.contains(o.a)) return;
      statusIntfs[o.a] = intf[o.a];
      if (engine) followIntf(*engine, intf[o.a]);
      return;
    case Do::neighborUp:
      if (statusNeighbors.contains(names.neighbor[o.a])) return;
      statusNeighbors[names.neighbor[o.a]] = std::make_shared<Neighbor>(Neighbor{intf[o.group]});
      handleNeighbor(names.neighbor[o.a]);
      return;
    case Do::neighborDown:
      if (statusNeighbors.erase(names.neighbor[o.a]) != 0) handleNeighbor(names.neighbor[o.a]);
      return;
    case Do::neighborAgain:
      handleNeighbor(names.neighbor[o.a]);
      return;
    case Do::resync:
      return;
    case Do::add: {
      auto const data = find(o);
      if (!data) return;
      auto const g = groupIs(data, group);
      if (o.kind == Kind::wildcard) {
        g->wildcard = Wildcard{names.rp[o.source % Names::rps], o.n != 0};
        sourceChanged(data, g, o.kind, source);
      } else if (g->put(o.kind, source)) {
        sourceChanged(data, g, o.kind, source);
      }
      return;
    }
    case Do::remove: {
      auto const data = find(o);
      auto const g = findGroup(o);
      if (!g || !g->takeOut(o.kind, source)) return;
      sourceChanged(data, g, o.kind, source);
      if (g->routes() == 0 && !machine()) groupDel(data, group);
      return;
    }
    case Do::groupAdd:
      if (auto const data = find(o)) groupIs(data, group);
      return;
    case Do::groupDel:
      if (auto const data = find(o)) groupDel(data, group);
      return;
    case Do::groupFilled: {
      auto const data = find(o);
      if (!data || data->groups.contains(group)) return;
      auto const made = std::make_shared<Group>(Group{
          .address = group, .joined = {}, .pruned = {}, .rptJoined = {}, .rptPruned = {}, .wildcard = {}});
      data->groups[group] = made;
      if (o.kind == Kind::wildcard)
        made->wildcard = Wildcard{names.rp[o.source % Names::rps], o.n % 2 != 0};
      else
        for (U32 i = 0; i < Names::sources; ++i)
          if (o.n >> i & 1) made->put(o.kind, names.source[i]);
      if (o.x == 0)
        groupChanged(data, group);
      else
        groupsChanged(data);
      return;
    }
    case Do::groupsAgain:
      if (auto const data = find(o)) groupsChanged(data);
      return;
    case Do::sourceAgain: {
      auto const data = find(o);
      if (auto const g = findGroup(o)) {
        if (o.kind == Kind::wildcard) return;
        sourceChanged(data, g, o.kind, source);
      }
      return;
    }
    case Do::sourcesAgain: {
      auto const data = find(o);
      auto const g = findGroup(o);
      if (!g || o.kind == Kind::wildcard) return;
      auto const who = concerned(data);
      if (!who || who->sendKind != SendKind::periodic) return;
      auto const& followers = who->machine->followers[index(SendKind::periodic)];
      auto const follower = followers.find(group);
      if (follower != followers.end() && follower->second.group == g)
        trace(7, form(*who->machine, SendKind::periodic, group), sourceHandler(o.kind), "()");
      return;
    }
    case Do::dataMake:
      dataIs(index(o.sendKind), names.target[o.a]);
      return;
    case Do::dataDel:
      status[index(o.sendKind)].erase(names.target[o.a]);
      return;
    case Do::receive: {
      std::map<Addr, GroupPtr> groups;
      for (auto const& entry : receivedEntries(o.n)) {
        auto& g = groups[names.group[entry.group]];
        if (!g) {
          g = std::make_shared<Group>();
          g->address = names.group[entry.group];
        }
        if (entry.kind == Kind::wildcard)
          g->wildcard = Wildcard{names.rp[entry.source % Names::rps], entry.join};
        else
          g->put(entry.kind, names.source[entry.source]);
      }
      ++channelCount;
      handleRxMessage(names.target[o.a], static_cast<U16>(o.x), groups);
      return;
    }
    case Do::rp:
      rps_.emplace(group, o.source < Names::rps ? names.rp[o.source] : names.unknown);
      return;
    case Do::deny:
      if (o.n != 0)
        denied_.insert(group);
      else
        denied_.erase(group);
      return;
    case Do::wait:
      waitUntil(now + o.x);
      return;
    case Do::waitNext:
      if (timeMin() != never) waitUntil(std::max(now, timeMin()));
      return;
    case Do::busy:
      now += o.x;
      return;
    case Do::seed:
      random_ = (U64{o.n} << 16) | 0x330E;
      return;
    case Do::quantum:
      if (auto const m = machine()) m->loopQuantum = o.x;
      return;
    case Do::interval:
      if (auto const m = machine()) m->triggeredInterval = o.x;
      return;
    case Do::diag:
      if (engine) engine->diag = o.n != 0;
      return;
    case Do::start:
      start();
      return;
    case Do::drop:
      drop();
      return;
    case Do::hold:
      if (auto const m = machine()) held.push_back(m);
      return;
    case Do::release:
      std::exchange(held, {});
      return;
    case Do::temper:
      manager.temperIs(o);
      return;
    case Do::record:
      if (o.n == 0)
        record = nullptr;
      else if (!record)
        record = servedRecord = std::make_shared<Record>();
      return;
    case Do::count_:
      return;
  }
}

}  // namespace Routing::Pim::Worlds
