// SPDX-License-Identifier: Apache-2.0
// The end, in every order.
#include <algorithm>
#include <numeric>

#include "tests/Thorough.h"
#include "tests/memory/Scene.h"

namespace Routing::Pim {
namespace {

// As little as has everything: an interface, a neighbor, a source in each of the neighbor's data sets, timers
// armed.
struct Small : World {
  Small() {
    auto const eth0 = intf("eth0", "10.0.0.1/24");
    neighbor("10.0.0.2", eth0);
    start();
    for (auto const& data : {triggered("10.0.0.2"), override_("10.0.0.2"), periodic("10.0.0.2")})
      group(data, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  }

  // What an agent that still has it would do with it.
  void goOn() {
    if (wheel && wheel->timeMin() <= time + 0.05) {
      time = std::max(time, wheel->timeMin());
      wheel->expire();
    }
    if (pim) pim->pimNeighborNotify(addr("10.0.0.2"));
    if (channel) channel->countInc(1);
    if (status)
      if (auto const data = status->triggeredGroup(addr("10.0.0.2"))) group(data, "239.1.1.1");
  }
};

// Everything that the agent holds, and how it lets go of it.
struct Holding {
  char const* name;
  void (*drop)(Small& w);
};
constexpr Holding holdings[] = {
    {"Machine", [](Small& w) { w.machine = nullptr; }},
    {"JoinPruneStatus", [](Small& w) { w.status = nullptr; }},
    {"Wheel", [](Small& w) { w.wheel = nullptr; }},
    {"Manager", [](Small& w) { w.manager = nullptr; }},
    {"Channel", [](Small& w) { w.channel = nullptr; }},
    {"Records", [](Small& w) { w.rxJoin = w.rxPrune = nullptr; }},
    {"FilterAndRpHash", [](Small& w) { w.filter = nullptr, w.rpHash = nullptr; }},
    {"Status", [](Small& w) { w.pim = nullptr; }},
};

class DestructionTest : public testing::TestWithParam<std::size_t> {};

// All orders, or one in so many.
TEST_P(DestructionTest, ComesFirstAndTheOthersFollowInEveryOrder) {
  std::size_t const share = thorough() ? 1 : 37;
  { Small const once; }  // for what stays anyway
  std::size_t orders = 0;
  for (bool const goesOn : {false, true}) {
    std::vector<std::size_t> order(std::size(holdings));
    std::iota(order.begin(), order.end(), 0);
    std::swap(order[0], order[GetParam()]);
    std::sort(order.begin() + 1, order.end());
    do {
      if (orders++ % share != 0) continue;
      std::size_t const blocks = CountedHeap::liveBlocks, bytes = CountedHeap::liveBytes;
      {
        Small w;
        ASSERT_GE(w.wheel->armedCount(), 3u);
        for (std::size_t const i : order) {
          holdings[i].drop(w);
          if (goesOn) w.goOn();
        }
      }
      if (CountedHeap::liveBlocks != blocks || CountedHeap::liveBytes != bytes) {
        std::string names;
        for (std::size_t const i : order) names += std::string(" ") + holdings[i].name;
        FAIL() << CountedHeap::liveBlocks - blocks << " blocks are left by the order" << names;
      }
    } while (std::next_permutation(order.begin() + 1, order.end()));
  }
  EXPECT_EQ(orders, 2u * 5040u);
}

INSTANTIATE_TEST_SUITE_P(Of, DestructionTest, testing::Range<std::size_t>(0, std::size(holdings)),
                         [](auto const& row) { return std::string(holdings[row.param].name); });

}  // namespace
}  // namespace Routing::Pim
