// SPDX-License-Identifier: Apache-2.0
#include "bench/PlainJobs.h"

#include <cstdlib>
#include <memory>

#include "bench/PlainRouter.h"

namespace Bench {

Body plainRoutesSent(U32 size) {
  auto const router = std::make_shared<PlainRouter>();
  return [=] {
    for (U32 route = 0; route < size; ++route) router->add(Plain::Way::triggered, route);
    router->fireNext();
    if (router->sent != size) std::abort();
  };
}

Body plainPeriodicRoutes(U32 staying) {
  auto const router = std::make_shared<PlainRouter>(staying);
  return [=] {
    U32 const end = staying + 1'000;
    for (U32 route = staying; route < end; ++route) router->add(Plain::Way::periodic, route);
    for (U32 route = staying; route < end; ++route) router->remove(Plain::Way::periodic, route);
    if (router->neighbor.periodic.size() != staying) std::abort();
  };
}

Body plainRefresh(U32 size) {
  auto const router = std::make_shared<PlainRouter>(size);
  router->round();
  return [=] { router->round(); };
}

Body plainStartUp() {
  auto const start = std::make_shared<PlainStart>(20, 50);
  auto const engine = std::make_shared<std::unique_ptr<Plain::Engine>>();
  return [=] { *engine = start->newEngine(); };
}

Body plainReceive(Shape const& shape, int observers) {
  auto const receiver = std::make_shared<PlainReceiver>(shape, observers);
  receiver->receive();  // what only a first message does has been done
  return [=] {
    for (int i = 0; i < 20; ++i) receiver->receive();
  };
}

}  // namespace Bench
