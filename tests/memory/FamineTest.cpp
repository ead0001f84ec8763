// SPDX-License-Identifier: Apache-2.0
// Every request for memory fails once, and then that one and all that follow it: nothing that is
// there may be lost, and with memory again everything continues.
#include "tests/Thorough.h"
#include "tests/memory/Scene.h"

namespace Routing::Pim {
namespace {

using CountedHeap::Famine;
using CountedHeap::Relief;

struct Stage {
  char const* name;
  bool traces;
  std::size_t length;      // of the famine
  std::size_t stride = 1;  // from one request that fails to the next
};

void PrintTo(Stage const& stage, std::ostream* os) { *os << stage.name; }

// So that the many lives can be lived side by side: each share takes every fourth request. Every request
// fails by itself; a longer famine begins at every third, and with traces, where a line alone makes a dozen
// requests that are alike, a seventh of them fails.
constexpr std::size_t shares = 4;

class FamineTest : public testing::TestWithParam<std::tuple<Stage, std::size_t>> {
 protected:
  Stage const stage = std::get<0>(GetParam());

  // A whole life, in which the n-th request fails. Whether there was such a request.
  bool live(std::size_t n) {
    std::optional<AllTraces> traces;
    if (stage.traces) traces.emplace();
    bool failed = false;
    Scene scene;
    {
      Famine const famine(n, stage.length);
      Scene::whateverHappens([&] { scene.start(); });
      if (scene.machine) scene.machine->diagUpJoinCountIs(true);
      scene.trafficWhateverHappens();
      failed = famine.failures() != 0;
    }
    scene.pass(1);
    EXPECT_EQ(scene.audit(), "");
    scene.mend();
    scene.traffic();
    EXPECT_EQ(scene.audit(), "");
    EXPECT_TRUE(scene.sendsAFreshJoin());
    {
      Famine const famine(n, stage.length);
      scene.end();
    }
    return failed;
  }
};

TEST_P(FamineTest, NothingIsLostForGoodWhicheverRequestFails) {
  EXPECT_FALSE(live(1'000'000));  // once before, for what stays anyway
  std::size_t n = 1 + std::get<1>(GetParam());
  for (bool failed = true; failed; n += shares * stage.stride * (thorough() ? 1 : 29)) {
    SCOPED_TRACE(n);
    std::size_t const blocks = CountedHeap::liveBlocks, bytes = CountedHeap::liveBytes;
    failed = live(n);
    if (HasFailure()) return;
    EXPECT_EQ(CountedHeap::liveBlocks, blocks);
    EXPECT_EQ(CountedHeap::liveBytes, bytes);
  }
  EXPECT_GT(n, 1000u);
}

INSTANTIATE_TEST_SUITE_P(
    Of, FamineTest,
    testing::Combine(testing::Values(Stage{"OneRequest", false, 1}, Stage{"AFew", false, 5, 3},
                                     Stage{"OneRequestWithTraces", true, 1, 7},
                                     Stage{"AllThatFollow", false, ~std::size_t{0} / 2, 3}),
                     testing::Range<std::size_t>(0, shares)),
    [](auto const& row) {
      return std::string(std::get<0>(row.param).name) + "_" + std::to_string(std::get<1>(row.param) + 1);
    });

}  // namespace
}  // namespace Routing::Pim
