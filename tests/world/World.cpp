// SPDX-License-Identifier: Apache-2.0
#include "tests/world/World.h"

#include <algorithm>
#include <csignal>
#include <iterator>
#include <sstream>

#include "tests/AnotherProcess.h"

namespace Routing::Pim::Worlds {

namespace {

std::string pointerText(void const* pointer) {
  std::ostringstream text;
  text << pointer;
  return text.str();
}

// For people: the signs of names become visible.
std::string readable(std::string text) {
  std::replace(text.begin(), text.end(), '\1', '<');
  std::replace(text.begin(), text.end(), '\2', '>');
  return text;
}

std::string toText(Event const& event) {
  return (event.level == 0 ? "" : "trace " + std::to_string(event.level) + " ") + readable(event.text);
}

// Compares attribute by attribute and keeps the first difference.
class Comparison {
 public:
  explicit operator bool() const { return first_.empty(); }
  std::string const& first() const { return first_; }

  template <class Expected, class Got>
  Comparison& operator()(char const* what, Expected const& expected, Got const& got) {
    if (expected == got || !first_.empty()) return *this;
    std::ostringstream text;
    text.precision(17);
    text << what << ": expected " << expected << ", got " << got << '\n';
    first_ = text.str();
    return *this;
  }
  Comparison& also(std::string const& where, std::string const& other) {
    if (first_.empty() && !other.empty()) first_ = where + ": " + other;
    return *this;
  }

 private:
  std::string first_;
};

// Whether a set that is walked in ascending numbers holds the same.
template <class Numbers, class Sources>
bool same(Numbers const& expected, Sources got, U32 count) {
  if (expected.size() != count) return false;
  for (Addr const number : expected) {
    if (!got || !(got.key() == Names::get().address(number))) return false;
    ++got;
  }
  return !got;
}

std::string differs(Model::Group const& expected, Packet::JoinPruneGroupData const& got) {
  Comparison compare;
  compare("routes", expected.routes(), got.routes())("empty", expected.routes() == 0, got.empty());
  compare("joined", true, same(expected.joined, got.joinedSourceIterator(), got.joinedSourceCount()));
  compare("pruned", true, same(expected.pruned, got.prunedSourceIterator(), got.prunedSourceCount()));
  compare("joined rpt", true,
          same(expected.rptJoined, got.joinedRptSourceIterator(), got.joinedRptSourceCount()));
  compare("pruned rpt", true,
          same(expected.rptPruned, got.prunedRptSourceIterator(), got.prunedRptSourceCount()));
  auto const wildcard = got.wcSourceData();
  compare("wildcard", expected.wildcard.has_value(), wildcard != nullptr);
  if (compare && wildcard)
    compare("RP", Names::get().address(expected.wildcard->rp), wildcard->address())(
        "wildcard join", expected.wildcard->join, wildcard->join());
  return compare.first();
}

std::string differs(Model::Data const& expected, Packet::JoinPruneData const& got) {
  auto const& names = Names::get();
  Comparison compare;
  compare("upstream", names.address(expected.upstream), got.upstreamNeighbor());
  compare("hold time", expected.holdTime, got.holdTime())("periodic", expected.periodic, got.periodic());
  compare("groups", expected.groups.size(), got.joinPruneGroupDataCount());
  auto g = got.joinPruneGroupDataIterator();
  for (auto const& [address, group] : expected.groups) {
    if (!compare) break;
    compare("group", names.address(address), g.key());
    if (compare) compare.also(names.text(address), differs(*group, *g));
    ++g;
  }
  return compare.first();
}

template <class Targets>
std::string differs(std::map<Addr, Model::DataPtr> const& expected, Targets got, U32 count) {
  auto const& names = Names::get();
  Comparison compare;
  compare("targets", expected.size(), count);
  for (auto const& [address, data] : expected) {
    if (!compare) break;
    compare("target", names.address(address), got.key());
    if (compare) compare.also(names.text(address), differs(*data, *got));
    ++got;
  }
  return compare.first();
}

// The followers of a machine's groups: whom they watch, by the data that holds the groups. A group that is in
// no data any more is told by its content.
template <class Followers>
std::string differs(Model::Machine const& m, SendKind sendKind, Packet::JoinPruneData const& data,
                    Followers got, U32 count) {
  auto const& names = Names::get();
  auto const& expected = m.followers[static_cast<U32>(sendKind)];
  auto const& groups = m.data[static_cast<U32>(sendKind)]->groups;
  Comparison compare;
  compare("followers", expected.size(), count);
  for (auto const& [address, follower] : expected) {
    if (!compare) break;
    compare("follower of", names.address(address), got.key());
    auto const group = groups.find(address);
    bool const current = group != groups.end() && group->second == follower.group;
    auto const watched = got->notifier();
    compare("follows what is there", current, watched == data.joinPruneGroupData(names.address(address)));
    compare("watches", true, watched != nullptr);
    if (compare && !current) compare.also("what it follows", differs(*follower.group, *watched));
    if constexpr (requires { got->wcSourceSet(); })
      compare("wildcard counted", follower.wildcardCounted, got->wcSourceSet());
    ++got;
  }
  return compare.first();
}

std::string differs(Model::Received const& expected, JoinPruneMessageInfo const& got) {
  auto const& names = Names::get();
  Comparison compare;
  compare("source", names.address(expected.source), got.riKey().source());
  compare("group", names.address(expected.group), got.riKey().group());
  compare("interface", std::string(), got.riKey().intfId().name());
  compare("upstream neighbor", names.address(expected.upstream), got.upstreamNeighbor());
  compare("flags", U32{expected.flags}, U32{got.sourceFlags().value()});
  compare("hold time", expected.holdTime, got.holdTime());
  compare("RP", names.address(expected.rp), got.wcSource());
  compare("count", expected.count, got.rxCount());
  return compare.first();
}

std::string differs(Model::Intf const& expected, Intf const& got) {
  auto const& names = Names::get();
  Comparison compare;
  compare("name", names.intf(expected.name), got.intfId().name());
  compare("address", names.address(expected.address), got.usedAddressWithMask().ipGenAddr());
  compare("length", U32{expected.length}, U32{got.usedAddressWithMask().length()});
  compare("hold time", expected.holdTime, got.joinPruneHoldTime());
  compare("interval", expected.interval, got.joinPruneInterval());
  compare("override interval", expected.overrideInterval, got.usedOverrideIntervalInSeconds());
  return compare.first();
}

}  // namespace

std::string World::step(Operation const& operation) {
  ++steps_;
  try {
    model_.step(operation);
  } catch (Stopped const& stopped) {
    stopped_ = true;
    keepFewTraces();
    return stopDiffers(operation, stopped.expression);
  }
  keepFewTraces();
  library_.events.clear();
  library_.manager.messages = library_.expiries = 0;
  library_.perform(operation);
  auto difference = eventsDiffer();
  if (difference.empty()) difference = stateDiffers();
  forget();
  return difference;
}

void World::keepFewTraces() {
  if (traces_ != Traces::all)
    std::erase_if(model_.events,
                  [this](Event const& event) { return event.level > (traces_ == Traces::few ? 4u : 0u); });
}

void World::repeat(Operation const& operation) {
  ++steps_;
  library_.tracesIs(false);
  model_.silent = true;
  model_.step(operation);
  model_.silent = false;
  library_.manager.messages = library_.expiries = 0;
  library_.perform(operation);
  setTraces();
}

void World::setTraces() {
  library_.tracesIs(traces_ != Traces::none);
  if (traces_ == Traces::few) library_.fewTraces();
}

// The library must stop the process with this assertion, and everything up to then must be the same. A copy
// of the process finds out.
std::string World::stopDiffers(Operation const& operation, std::string const& expression) {
  auto const [told, status] = inACopy([&](int end) {
    dup2(end, STDERR_FILENO);
    library_.listener = [end](Event const& event) {
      say(end, std::string(1, static_cast<char>('a' + event.level)) + event.text + '\n');
    };
    // Only what the library itself has registered is to act at the end.
    std::signal(SIGABRT, SIG_DFL);
    library_.perform(operation);
  });
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGABRT) {
    return "expected the process to stop by \"" + expression + "\", and it ended with status " +
           std::to_string(status) + " after\n" + told;
  }
  library_.events.clear();
  std::istringstream lines(told);
  std::string line;
  while (library_.events.size() < model_.events.size() && std::getline(lines, line))
    library_.events.push_back({static_cast<U8>(line[0] - 'a'), line.substr(1)});
  if (auto const difference = eventsDiffer(); !difference.empty()) return difference;
  std::string const rest(std::istreambuf_iterator<char>(lines), {});
  if (rest.find(expression) == rest.npos || std::count(rest.begin(), rest.end(), '\n') > 1)
    return "expected \"" + expression + "\" at the end, not " + rest;
  return {};
}

// --- Events

bool World::sameEvent(Event const& expected, Event const& got) {
  if (expected.level != got.level) return false;
  auto const named = expected.text.find('\1');
  if (named == expected.text.npos) return expected.text == got.text;
  // "...\1m3\2..." here is "...0x602000001234..." there, or "0x602000001234\2..." at the beginning of a line.
  auto const end = expected.text.find('\2', named);
  std::size_t const rest = expected.text.size() - end - 1;
  std::string_view const gotText = got.text;
  if (gotText.size() < named + rest ||
      gotText.substr(0, named) != std::string_view(expected.text).substr(0, named) ||
      gotText.substr(gotText.size() - rest) != std::string_view(expected.text).substr(end + 1)) {
    return false;
  }
  auto pointer = gotText.substr(named, gotText.size() - rest - named);
  if (!pointer.empty() && pointer.back() == '\2') pointer.remove_suffix(1);
  auto const name = std::string_view(expected.text).substr(named + 1, end - named - 1);
  for (auto const& [known, knownPointer] : names_)
    if (known == name || knownPointer == pointer) return known == name && knownPointer == pointer;
  names_.emplace_back(name, pointer);
  return true;
}

std::string World::eventsDiffer() {
  auto const& expected = model_.events;
  auto const& got = library_.events;
  std::size_t at = 0;
  while (at < expected.size() && at < got.size() && sameEvent(expected[at], got[at])) ++at;
  if (at == expected.size() && at == got.size()) return {};
  std::ostringstream text;
  text << "event " << at << ":\n";
  for (std::size_t i = at - std::min<std::size_t>(at, 3); i < at; ++i) text << "  " << toText(got[i]) << '\n';
  for (std::size_t i = at; i < std::min(at + 4, expected.size()); ++i)
    text << "- " << toText(expected[i]) << '\n';
  if (at >= expected.size()) text << "- (the end)\n";
  for (std::size_t i = at; i < std::min(at + 4, got.size()); ++i) text << "+ " << toText(got[i]) << '\n';
  if (at >= got.size()) text << "+ (the end)\n";
  return text.str();
}

// The names of destroyed objects: another object may get the same address.
void World::forget() {
  std::vector<std::string> alive;
  auto const add = [&alive](JoinPruneNeighborSm const& m) {
    alive.push_back(pointerText(&m));
    alive.push_back(pointerText(m.joinPrunePeriodicTimerSm().get()));
  };
  if (names_.empty()) return;
  if (library_.engine)
    for (auto m = library_.engine->joinPruneNeighborSmIterator(); m; ++m) add(*m);
  for (auto const& m : library_.held) add(*m);
  std::erase_if(names_, [&alive](auto const& name) {
    return std::find(alive.begin(), alive.end(), name.second) == alive.end();
  });
}

// --- State

std::string World::stateDiffers() {
  auto const& names = Names::get();
  Comparison compare;
  compare("now", model_.now, library_.now);
  compare("timers", model_.armedCount(), library_.wheel->armedCount());
  compare("first timer", model_.timeMin(), library_.wheel->timeMin());

  for (U8 i = 0; i < Names::intfs; ++i)
    compare.also(names.intf(i), Worlds::differs(*model_.intf[i], *library_.intf[i]));
  compare("interfaces", model_.statusIntfs.size(), library_.pim->pimIntfCount());
  compare("neighbors", model_.statusNeighbors.size(), library_.pim->pimNeighborCount());

  auto const& status = *library_.status;
  auto const& periodic = *status.periodicGroupStatus();
  compare.also("triggered", Worlds::differs(model_.status[0], status.triggeredGroupIterator(),
                                            status.triggeredGroupCount()));
  compare.also("override", Worlds::differs(model_.status[1], status.overrideGroupIterator(),
                                           status.overrideGroupCount()));
  compare.also("periodic", Worlds::differs(model_.status[2], periodic.upJoinPruneIterator(),
                                           periodic.upJoinPruneCount()));
  compare.also("rxJoin", Worlds::differs(model_.rxJoin, *library_.rxJoin));
  compare.also("rxPrune", Worlds::differs(model_.rxPrune, *library_.rxPrune));

  auto const record = library_.pam->txMessageInfo();
  compare("record", model_.record != nullptr, record != nullptr);
  if (compare && record) {
    compare("messages sent", model_.record->count, record->count());
    compare("interface of the record", model_.record->intf ? names.intf(*model_.record->intf) : std::string(),
            record->intfId().name());
    compare("message of the record", model_.record->message != nullptr,
            record->joinPruneMessage() != nullptr);
  }

  auto const& engine = library_.engine;
  compare("engine", model_.engine != nullptr, engine != nullptr);
  if (!compare || !engine) return compare.first();
  auto const& expected = *model_.engine;
  auto const message = engine->txMessage();
  compare("message", true, message != nullptr);
  if (!compare) return compare.first();
  compare("report", expected.message->report, message->report());
  compare("data of the message", expected.message->data != nullptr, message->joinPruneData() != nullptr);
  if (compare && message->joinPruneData())
    compare.also("data of the message", Worlds::differs(*expected.message->data, *message->joinPruneData()));
  if (record)
    compare("message of the record is the machine's", model_.record->message == expected.message,
            record->joinPruneMessage() == message);
  compare("diag", expected.diag, engine->diagUpJoinCount());
  compare("initialized", expected.initialized, engine->initialized());
  compare("interface reactors", expected.intfs.size(), engine->pimIntfCount());
  if (compare) {
    auto i = engine->pimIntfIterator();
    for (auto const& [name, followed] : expected.intfs) {
      compare("interface reactor", names.intf(name), i.key().name());
      compare("address of an interface reactor", names.address(followed.address), i->address());
      compare("interface of a reactor", followed.intf == model_.intf[name],
              i->notifier() == Vel::Ptr<Intf const>(library_.intf[name]));
      ++i;
    }
  }
  compare("machines", expected.machines.size(), engine->joinPruneNeighborSmCount());
  if (!compare) return compare.first();
  auto m = engine->joinPruneNeighborSmIterator();
  for (auto const& [address, machine] : expected.machines) {
    compare("machine", names.address(address), m.key());
    if (!compare) break;
    compare.also("machine " + names.text(address), differs(*machine, *m));
    ++m;
  }
  for (std::size_t i = 0; i < library_.held.size(); ++i) {
    auto const& held = *library_.held[i];
    auto const h = std::next(model_.held.begin(), static_cast<std::ptrdiff_t>(i));
    compare("held machine retired", (*h)->retired, held.parentSm() == nullptr);
    compare.also("held machine", differs(**h, held));
  }
  return compare.first();
}

std::string World::differs(Model::Machine const& expected, JoinPruneNeighborSm const& got) {
  auto const& names = Names::get();
  Comparison compare;
  compare("address", names.address(expected.address), got.neighborAddr());
  compare("parent", true, got.parentSm() == (expected.retired ? nullptr : library_.engine.get()));
  compare("neighbor", expected.neighbor != nullptr, got.neighbor() != nullptr);
  if (compare && expected.neighbor) {
    compare("neighbor's address", names.address(expected.address), got.neighbor()->address());
    auto const known = model_.statusNeighbors.find(expected.address);
    compare("neighbor is the one that is up",
            known != model_.statusNeighbors.end() && known->second == expected.neighbor,
            got.neighbor() == Vel::Ptr<Neighbor const>(library_.pim->pimNeighbor(got.neighborAddr())));
  }
  compare("interface is the latest", expected.intf == model_.intf[expected.intf->name],
          got.intf() == Vel::Ptr<Intf const>(library_.intf[expected.intf->name]));
  compare.also("interface", Worlds::differs(*expected.intf, *got.intf()));

  auto const& status = *library_.status;
  auto const& periodicStatus = *status.periodicGroupStatus();
  auto const address = got.neighborAddr();
  auto const data = [&](SendKind sendKind, auto const& reactor, auto const& listed) {
    U32 const c = static_cast<U32>(sendKind);
    auto const known = model_.status[c].find(expected.address);
    bool const isListed = known != model_.status[c].end() && known->second == expected.data[c];
    auto const watched = reactor->notifier();
    compare("data is there", true, watched != nullptr);
    if (!compare) return;
    compare("data is the listed one", isListed, listed && watched.get() == listed.get());
    if (compare && !isListed)
      compare.also("data that is not listed", Worlds::differs(*expected.data[c], *watched));
  };
  data(SendKind::triggered, got.triggeredGroup(), status.triggeredGroup(address));
  data(SendKind::override, got.overrideGroup(), status.overrideGroup(address));
  data(SendKind::periodic, got.periodicGroup(), periodicStatus.upJoinPrune(address));
  if (!compare) return compare.first();
  // To look at a follower makes it; half of the time the machine works without.
  auto const followers = [&expected](SendKind kind) {
    return expected.followers[static_cast<U32>(kind)].size();
  };
  compare("triggered followers", followers(SendKind::triggered), got.triggeredGroupDataCount())(
      "override followers", followers(SendKind::override), got.overrideGroupDataCount())(
      "periodic followers", followers(SendKind::periodic), got.periodicGroupDataCount());
  if (steps_ % 2 == 0) {
    compare.also("triggered",
                 Worlds::differs(expected, SendKind::triggered, *got.triggeredGroup()->notifier(),
                                 got.triggeredGroupDataIterator(), got.triggeredGroupDataCount()));
    compare.also("override", Worlds::differs(expected, SendKind::override, *got.overrideGroup()->notifier(),
                                             got.overrideGroupDataIterator(), got.overrideGroupDataCount()));
    compare.also("periodic", Worlds::differs(expected, SendKind::periodic, *got.periodicGroup()->notifier(),
                                             got.periodicGroupDataIterator(), got.periodicGroupDataCount()));
  }

  compare("override interval", expected.overrideInterval, got.overrideInterval());
  compare("loop quantum", expected.loopQuantum, got.loopQuantum());
  compare("triggered interval", expected.triggeredInterval, got.triggeredInterval());
  compare("routes", expected.routes, got.numPeriodicRoutes());
  compare("initialized", expected.initialized, got.initialized());
  if (!expected.retired) compare("message", true, got.txMessage() == library_.engine->txMessage());
  compare("wheel", true, got.timerWheel() && got.timerWheel()->notifier() == library_.wheel);
  compare("manager", true, got.pimPamManager() && got.pimPamManager()->notifier() == library_.pam);

  // A retired machine may have let go of its timers.
  auto const timer = [&](char const* what, SendKind sendKind, auto const& ptr) {
    compare(what, true, ptr != nullptr || expected.retired);
    if (compare && ptr) compare(what, expected.timers[static_cast<U32>(sendKind)].time, ptr->timeMin());
  };
  timer("triggered timer", SendKind::triggered, got.triggeredTimer());
  timer("override timer", SendKind::override, got.overrideTimer());
  auto const periodic = got.joinPrunePeriodicTimerSm();
  compare("periodic machine", true, periodic != nullptr);
  if (!compare) return compare.first();
  timer("periodic timer", SendKind::periodic, periodic->periodicTimer());
  auto const slice = periodic->periodicParams();
  compare("slice's interval", expected.sliceInterval, slice.interval);
  compare("slice's routes", expected.sliceRoutes, slice.routes);
  compare("periodic quantum", 0.1, periodic->loopQuantum());
  compare("periodic initialized", true, periodic->initialized());
  compare("periodic machine's parent", true, periodic->parentSm() == (expected.retired ? nullptr : &got));
  compare("periodic machine's data", true, periodic->periodicGroup() == got.periodicGroup()->notifier());
  return compare.first();
}

}  // namespace Routing::Pim::Worlds
