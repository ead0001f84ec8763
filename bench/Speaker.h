// SPDX-License-Identifier: Apache-2.0
// What a speaker does, beside the same with the engine alone and the same packet manager and codec: a
// thousand routes wanted to their bytes, a message received to its state, and very many routes refreshed by
// messages.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <span>
#include <vector>

#include "bench/Receiver.h"
#include "bench/Router.h"
#include "pim/speaker/Conversion.h"
#include "pim/speaker/Speaker.h"
#include "pim/wire/Hello.h"

namespace Bench {

/// A speaker with one neighbor, on a clock that the benchmark moves. Its packets are counted and dropped.
struct SpeakingRouter : Routing::Pim::Speaker::Sink {
  SpeakingRouter() {
    namespace Wire = Routing::Pim::Wire;
    speaker.interfaceIs("eth0", {"10.0.0.1/24"});
    pass(6);  // the first Hello
    Wire::Hello hello;
    hello.holdTimeIs(Wire::endlessHoldTime);
    speaker.receive({"eth0", neighbor, destination, 1}, Wire::encodeHello(hello, neighbor, destination));
    pass(6);  // the answer
  }

  Routing::Pim::Speaker::Sent send(Routing::Pim::Speaker::Outgoing const& packet) override {
    bytes += packet.bytes.size();
    return Routing::Pim::Speaker::Sent::done;
  }
  /// A Join/Prune from the neighbor.
  void receive(std::vector<Vel::U8> const& message) {
    if (speaker.receive({"eth0", neighbor, destination, 1}, message) !=
        Routing::Pim::Speaker::Verdict::joinPrune)
      std::abort();
  }
  /// Moves the clock on.
  void pass(Vel::Seconds seconds) {
    Vel::Seconds const end = time + seconds;
    while (wheel->timeMin() <= end) {
      time = std::max(time, wheel->timeMin());
      wheel->expire();
    }
    time = end;
  }

  Vel::Seconds time = 0;
  std::size_t bytes = 0;
  Dova::IntfId const eth0{"eth0"};
  IpGenAddr const neighbor{"10.0.0.2"}, source{"10.9.0.1"},
      destination{Routing::Pim::Wire::allPimRouters(neighbor.af())};
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
  Routing::Pim::Speaker::Speaker speaker{wheel, *this, {.seed = 1}};
};

constexpr U32 wantedRoutes = 1'000;

/// The agent writes the data sets itself.
inline void want(RefreshingRouter& router) {
  for (U32 route = 0; route < wantedRoutes; ++route) {
    router.add(*router.triggered, route);
    router.add(*router.periodic, route);
  }
  router.time += 0.1;
  router.wheel->expire();
  if (router.sent != wantedRoutes) std::abort();
}

inline void want(SpeakingRouter& router) {
  std::size_t const before = router.bytes;
  for (U32 route = 0; route < wantedRoutes; ++route)
    router.speaker.upstream().joinIs({router.source, groupOf(route)}, {router.eth0, router.neighbor});
  router.pass(0.1);
  if (router.bytes < before + wantedRoutes * 20) std::abort();  // a group of one source
}

constexpr U32 groupsOfAMessage = 70;

/// The neighbor's joins for 70 groups of one source, from this group on.
inline std::vector<Vel::U8> messageToReceive(U32 first = 0) {
  namespace Wire = Routing::Pim::Wire;
  Wire::JoinPrune message{IpGenAddr("10.0.0.1"), 210};
  for (U32 g = 0; g < groupsOfAMessage; ++g) {
    message.groupAdd(groupOf(first + g));
    message.entryAdd(Routing::Pim::EntryKind::sourceJoin, IpGenAddr::ipv4(0x0a090001u + g));
  }
  IpGenAddr const neighbor("10.0.0.2");
  return Wire::encodeJoinPrune(message, neighbor, Wire::allPimRouters(neighbor.af()));
}

/// As many joins, or up to 69 fewer, in messages of 70. They have been received once, some time ago.
template <class Router>
struct Refreshed {
  explicit Refreshed(U32 size) {
    for (; routes + groupsOfAMessage <= size; routes += groupsOfAMessage)
      messages.push_back(messageToReceive(routes));
    receive();
    pass();
  }
  void receive() {
    for (auto const& message : messages) router.receive(message);
  }
  /// Moves the clock on, if there is one, so that the next refresh has another time.
  void pass() {
    if constexpr (requires { router.pass(1); }) router.pass(1);
  }

  Router router;
  U32 routes = 0;
  std::vector<std::vector<Vel::U8>> messages;
};

/// The engine's two records are watched, and there is no state.
struct DecodingReceiver {
  void receive(std::vector<Vel::U8> const& bytes) {
    namespace Wire = Routing::Pim::Wire;
    auto const decoded = Wire::decodeJoinPrune(bytes, neighbor, destination);
    for (auto const& message : Routing::Pim::Speaker::modelMessages(std::get<Wire::JoinPrune>(decoded)))
      receiver.receive(message);
  }

  IpGenAddr const neighbor{"10.0.0.2"}, destination{Routing::Pim::Wire::allPimRouters(neighbor.af())};
  Receiver receiver{{"", 70, 1, 0, 0, false}, 1};
};

}  // namespace Bench
