// SPDX-License-Identifier: Apache-2.0
// What a speaker does, beside the same with the engine alone and the same packet manager and codec: a
// thousand routes wanted to their bytes, and a message received to its state.
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

/// The neighbor's joins for 70 groups of one source.
inline std::vector<Vel::U8> messageToReceive() {
  namespace Wire = Routing::Pim::Wire;
  Wire::JoinPrune message{IpGenAddr("10.0.0.1"), 210};
  for (U32 g = 0; g < 70; ++g) {
    message.groupAdd(groupOf(g));
    message.entryAdd(Routing::Pim::EntryKind::sourceJoin, IpGenAddr::ipv4(0x0a090001u + g));
  }
  IpGenAddr const neighbor("10.0.0.2");
  return Wire::encodeJoinPrune(message, neighbor, Wire::allPimRouters(neighbor.af()));
}

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
