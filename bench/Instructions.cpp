// SPDX-License-Identifier: Apache-2.0
// Fixed scenarios, for scripts/instructions, which counts their instructions under valgrind's callgrind and
// compares them with bench/instructions.json. A count does not depend on what else the machine does, so that
// it shows a change of a few per cent, which a time cannot.
//
//     joinprune_instructions         lists the scenarios
//     joinprune_instructions NAME    runs one; what counts is between two client requests
//
// "<NAME>, plain" is the same job done by the plain engine (bench/plain). Seeds and clocks are fixed. Each
// scenario runs in a process of its own, so that none sees the heap that another left.
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/Containers.h"
#include "bench/PlainJobs.h"
#include "bench/Receiver.h"
#include "bench/Router.h"
#include "bench/Speaker.h"
#include "pim/wire/PimMessage.h"
#include "runtime/scrivo/Scrivo.h"
#include "runtime/vel/Hash.h"
#include "runtime/vel/Trace.h"

namespace {

namespace Wire = Routing::Pim::Wire;
using Bench::Body;
using Bench::Keys;
using Dova::IpGenAddr;
using Vel::U32;

std::string sizeText(U32 size) { return std::to_string(size / 1'000) + "k"; }

struct Scenario {
  std::string name;
  std::function<Body()> prepare;
};

class Watcher final : public Routing::Pim::JoinPruneMessageInfo::NotifieeConst {
 public:
  [[gnu::noipa]] void onHoldTime() override { ++calls; }
  std::size_t calls = 0;
};

Body changedValue(int reactors) {
  auto const record = Routing::Pim::joinPruneMessageInfoFactory();
  std::vector<Vel::Ptr<Watcher>> watchers;
  for (int i = 0; i < reactors; ++i) {
    watchers.push_back(Vel::create<Watcher>());
    watchers.back()->notifierIs(record);
  }
  return [=] {
    for (int i = 1; i <= 10'000; ++i) record->holdTimeIs(i);
    for (auto const& watcher : watchers)
      if (watcher->calls != 10'000) std::abort();
  };
}

/// An operation on a container of a thousand keys, full or empty at first.
template <class Container>
Body onContainer(bool full, void (*operation)(Container&, Keys const&)) {
  auto const keys = Bench::someKeys(1'000, false);
  auto const container = std::make_shared<Container>(*keys);
  if (full)
    for (std::size_t i = 0; i < keys->all.size(); ++i) container->insert(i);
  return [=] { operation(*container, *keys); };
}

template <class Container>
void addContainer(std::vector<Scenario>& to, std::string const& name) {
  auto const add = [&](char const* what, bool full, void (*operation)(Container&, Keys const&)) {
    to.push_back({name + ", " + what, [=] { return onContainer<Container>(full, operation); }});
  };
  add("insert", false, [](Container& container, Keys const& keys) {
    for (std::size_t i = 0; i < keys.all.size(); ++i) container.insert(i);
  });
  add("hit", true, [](Container& container, Keys const& keys) {
    for (auto const& key : keys.all)
      if (!container.contains(key)) std::abort();
  });
  add("miss", true, [](Container& container, Keys const& keys) {
    for (auto const& key : keys.missing)
      if (container.contains(key)) std::abort();
  });
  add("erase", true, [](Container& container, Keys const& keys) {
    for (std::size_t const i : keys.shuffled) container.erase(i);
  });
  add("iterate", true, [](Container& container, Keys const&) { Bench::keep(container.walk()); });
}

class Timer final : public Zanth::TimerWheel::Notifiee {
 public:
  void onTime() override { ++fired; }
  int fired = 0;
};

/// A thousand timers, a second to some minutes ahead.
struct Timers {
  Timers() {
    std::mt19937 random(1);
    for (U32 i = 0; i < 1'000; ++i) {
      for (auto* const to : {&delays, &others}) to->push_back(1 + random() % 210'000 * 0.001);
      timers.push_back(Vel::create<Timer>());
      timers.back()->notifierIs(wheel);
    }
  }
  void arm(std::vector<double> const& times) {
    for (std::size_t i = 0; i < timers.size(); ++i) timers[i]->timeMinIs(times[i]);
  }
  void cancel() {
    for (auto const& timer : timers) timer->timeMinIs(Vel::never);
  }
  void fire() {
    for (; wheel->timeMin() < Vel::never; wheel->expire()) time = wheel->timeMin();
    for (auto const& timer : timers)
      if (timer->fired != 1) std::abort();
  }

  double time = 0;
  std::vector<double> delays, others;
  Vel::Ptr<Zanth::TimerWheel> const wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
  std::vector<Vel::Ptr<Timer>> timers;
};

/// Many timers in one second. The earliest becomes the last, or another one is armed before it and disarmed,
/// and each time the loop asks how long it may sleep.
Body earliestOf(U32 size) {
  auto const timers = std::make_shared<std::vector<Vel::Ptr<Timer>>>();
  auto const wheel = Vel::create<Zanth::TimerWheel>([] { return 0.0; });
  double const step = 1.0 / size;
  for (U32 i = 0; i <= size; ++i) {
    timers->push_back(Vel::create<Timer>());
    timers->back()->notifierIs(wheel);
    timers->back()->timeMinIs(60 + i * step);
  }
  auto const front = timers->back();
  auto const ask = [=](double expected) {
    if (std::abs(wheel->timeMin() - expected) > step / 2) std::abort();
  };
  front->timeMinIs(1);
  front->timeMinIs(Vel::never);
  ask(60);  // does what arming has put off
  return [=] {
    for (U32 i = 0; i < 10'000; ++i) {
      (*timers)[i]->timeMinIs(61 + i * step);
      if (i + 1 < size) ask(60 + (i + 1) * step);
      front->timeMinIs(1);
      ask(1);
      front->timeMinIs(Vel::never);
      if (i + 1 < size) ask(60 + (i + 1) * step);
    }
  };
}

Body onTimers(bool armed, void (*operation)(Timers&)) {
  auto const timers = std::make_shared<Timers>();
  if (armed) timers->arm(timers->delays);
  return [=] { operation(*timers); };
}

Body disabledTraceLine() {
  auto& handle = Vel::TraceHandle::find("Bench");
  return [&handle] {
    for (int i = 0; i < 10'000; ++i) {
      VEL_TRACE(handle, 7, "Bench", __func__, "entry " << i);
      benchmark::ClobberMemory();
    }
  };
}

Body ringMessage() {
  auto const path =
      (std::filesystem::temp_directory_path() / ("instructions-" + std::to_string(getpid()) + ".trace"))
          .string();
  Scrivo::TraceFile::open(path);
  std::filesystem::remove(path);  // the mapping stays
  return [neighbor = IpGenAddr("10.0.0.2"), intf = std::string("eth0")] {
    for (int i = 0; i < 10'000; ++i) {
      SCRIVO_BLOCK_TIMER("Bench", __PRETTY_FUNCTION__);
      SCRIVO_MESSAGE("Bench", "Sending triggered joins/prunes to ", neighbor, ", Intf: ", intf,
                     ", Groups: ", i);
    }
  };
}

Body countedReference() {
  class Thing final : public Vel::Counted {};
  return [thing = Vel::create<Thing>()] {
    for (int i = 0; i < 10'000; ++i) {
      Vel::Ptr<Thing> const copy(thing);
      Bench::keep(copy);
    }
  };
}

Body receive(Bench::Shape const& shape, int observers) {
  auto const receiver = std::make_shared<Bench::Receiver>(shape, observers);
  receiver->receive();  // what only a first message does has been done
  return [=] {
    for (int i = 0; i < 20; ++i) receiver->receive();
  };
}

// From being wanted to being sent, packets included.
Body routesSent(U32 size) {
  auto const router = std::make_shared<Bench::RefreshingRouter>(0);
  return [=] {
    for (U32 route = 0; route < size; ++route) router->add(*router->triggered, route);
    router->fireNext();
    if (router->sent != size) std::abort();
  };
}

Body triggeredRoutes() {
  auto const router = std::make_shared<Bench::TakingRouter>();
  return [=] {
    for (U32 route = 0; route < 1'000; ++route) router->add(*router->triggered, route);
    router->time += 0.1;
    router->wheel->expire();
    if (router->triggered->joinPruneGroupDataCount() != 0) std::abort();
  };
}

// A thousand come and go.
Body periodicRoutes(U32 standing) {
  auto const router = std::make_shared<Bench::TakingRouter>();
  for (U32 route = 0; route < standing; ++route) router->add(*router->periodic, route);
  return [=] {
    U32 const end = standing + 1'000;
    for (U32 route = standing; route < end; ++route) router->add(*router->periodic, route);
    for (U32 route = standing; route < end; ++route) router->remove(*router->periodic, route);
    if (router->periodic->joinPruneGroupDataCount() != standing) std::abort();
  };
}

Body refresh(U32 size) {
  auto const router = std::make_shared<Bench::RefreshingRouter>(size);
  router->round();
  return [=] { router->round(); };
}

struct Coded {
  Coded() {
    for (U32 g = 0; g < 70; ++g) {
      message.groupAdd(Bench::groupOf(g));
      message.entryAdd(Routing::Pim::EntryKind::sourceJoin, IpGenAddr::ipv4(0x0a090001u + g));
    }
    bytes = encode();
  }
  std::vector<Vel::U8> encode() const { return Wire::encodeJoinPrune(message, source, destination); }

  Wire::JoinPrune message{IpGenAddr("10.0.0.1"), 210};
  IpGenAddr const source{"10.0.0.2"}, destination{Wire::allPimRouters(source.af())};
  std::vector<Vel::U8> bytes;
};

Body encode() {
  return [coded = Coded()] {
    for (int i = 0; i < 100; ++i) Bench::keep(coded.encode().data());
  };
}

Body decode() {
  return [coded = Coded()] {
    for (int i = 0; i < 100; ++i) {
      auto const decoded = Wire::decodeJoinPrune(coded.bytes, coded.source, coded.destination);
      if (std::get<Wire::JoinPrune>(decoded).groups().size() != 70) std::abort();
    }
  };
}

Body joinsOfEngine() {
  auto const router = std::make_shared<Bench::RefreshingRouter>(0);
  return [=] { Bench::want(*router); };
}

Body joinsOfSpeaker() {
  auto const router = std::make_shared<Bench::SpeakingRouter>();
  return [=] { Bench::want(*router); };
}

template <class Router>
Body received() {
  auto const router = std::make_shared<Router>();
  auto const message = Bench::messageToReceive();
  router->receive(message);
  return [=] {
    for (int i = 0; i < 20; ++i) router->receive(message);
  };
}

Body startUp() {
  auto const router = std::make_shared<Bench::StartingRouter>(20, 50);
  auto const machine = std::make_shared<Vel::Ptr<Routing::Pim::JoinPruneMessageSm>>();
  return [=] { *machine = router->newMachine(); };
}

// Whole jobs, by the library and by the plain engine.
void addJobs(std::vector<Scenario>& to) {
  auto const add = [&to](std::string const& name, std::function<Body()> const& ours,
                         std::function<Body()> const& plain) {
    to.push_back({name, ours});
    to.push_back({name + ", plain", plain});
  };
  auto const addReceive = [&add](std::string const& name, Bench::Shape const& shape, int observers) {
    add(
        name, [=] { return receive(shape, observers); },
        [=] { return Bench::plainReceive(shape, observers); });
  };
  Bench::Shape const many{"", 70, 1, 0, 0, false}, large{"", 1, 180, 0, 0, false};
  addReceive("receive, 70 groups of one source", many, 1);
  addReceive("receive, 70 groups, not watched", many, 0);
  addReceive("receive, one group of 180", large, 1);
  addReceive("receive, one group of 180, not watched", large, 0);
  to.push_back({"triggered routes", triggeredRoutes});
  for (U32 const size : {1'000u, 100'000u}) {
    std::string const text = sizeText(size);
    add(
        "triggered routes, " + text + " sent", [=] { return routesSent(size); },
        [=] { return Bench::plainRoutesSent(size); });
  }
  add(
      "periodic routes", [] { return periodicRoutes(1'000); },
      [] { return Bench::plainPeriodicRoutes(1'000); });
  add(
      "periodic routes among 100k", [] { return periodicRoutes(100'000); },
      [] { return Bench::plainPeriodicRoutes(100'000); });
  for (U32 const size : {1'000u, 100'000u})
    add(
        "refresh of " + sizeText(size), [=] { return refresh(size); },
        [=] { return Bench::plainRefresh(size); });
  add("start-up, 20 neighbors x 50 routes", startUp, Bench::plainStartUp);
}

std::vector<Scenario> scenarios() {
  std::vector<Scenario> all;
  for (int const reactors : {0, 1, 4, 16})
    all.push_back(
        {"changed value, " + std::to_string(reactors) + " reactors", [=] { return changedValue(reactors); }});
  addContainer<Bench::OurSet<Vel::HashSet<IpGenAddr>>>(all, "set of sources");
  addContainer<Bench::OurEntities>(all, "collection of entities");
  all.push_back(
      {"timers, arm", [] { return onTimers(false, [](Timers& timers) { timers.arm(timers.delays); }); }});
  all.push_back(
      {"timers, re-arm", [] { return onTimers(true, [](Timers& timers) { timers.arm(timers.others); }); }});
  all.push_back({"timers, cancel", [] { return onTimers(true, [](Timers& timers) { timers.cancel(); }); }});
  all.push_back({"timers, earliest of 10k", [] { return earliestOf(10'000); }});
  all.push_back({"timers, earliest of 100k", [] { return earliestOf(100'000); }});
  all.push_back({"timers, fire", [] { return onTimers(true, [](Timers& timers) { timers.fire(); }); }});
  all.push_back({"disabled trace line", disabledTraceLine});
  all.push_back({"ring message and block timer", ringMessage});
  all.push_back({"counted reference", countedReference});
  addJobs(all);
  all.push_back({"codec, encode", encode});
  all.push_back({"codec, decode", decode});
  all.push_back({"joins to bytes, engine alone", joinsOfEngine});
  all.push_back({"joins to bytes, speaker", joinsOfSpeaker});
  all.push_back({"bytes to records, engine alone", received<Bench::DecodingReceiver>});
  all.push_back({"bytes to downstream state, speaker", received<Bench::SpeakingRouter>});
  return all;
}

}  // namespace

int main(int argc, char** argv) {
  Vel::hashSeedIs(1);
  for (Scenario const& scenario : scenarios()) {
    if (argc == 1) std::cout << scenario.name << "\n";
    if (argc != 2 || scenario.name != argv[1]) continue;
    Body const body = scenario.prepare();
    CALLGRIND_TOGGLE_COLLECT;
    body();
    CALLGRIND_TOGGLE_COLLECT;
    return 0;
  }
  return argc == 1 ? 0 : 2;
}
