// SPDX-License-Identifier: Apache-2.0
// Random sequences of operations on small worlds: after each one the library and the model agree in
// everything that can be seen. What differs is made short and printed as a conversation.
//
// JOINPRUNE_WORLD_OPERATIONS  how many operations each of these tests performs
// JOINPRUNE_WORLD_SEED        the first world's seed; the others count on from it
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstdlib>
#include <map>
#include <sstream>

#include "tests/Thorough.h"
#include "tests/world/Paste.h"
#include "tests/world/Random.h"
#include "tests/world/World.h"

namespace Routing::Pim::Worlds {
namespace {

U64 const usualOperations = thorough() ? 200'000 : 2'000;
constexpr U32 operationsPerWorld = 200;

U64 fromEnvironment(char const* name, U64 otherwise) {
  char const* const text = std::getenv(name);
  return text && *text ? std::stoull(text) : otherwise;
}

/// What must happen now and then in a run, told by a part of a line; otherwise the agreement is worth little.
struct Happening {
  char const* part;
  bool unruly = false;  // happens only if the agent breaks the rules
  bool received = false;
};
constexpr Happening happenings[] = {
    {"Not creating SM"},
    {"Deleting existing SM"},
    {"Deleting any pending joins"},
    {", deleting neighbor"},
    {"Previous address"},
    {"Timer running"},
    {"Disarming timer"},
    {"Arming timer"},
    {", Sent"},
    {"Finished group"},
    {"Deleted group"},
    {"(*,G), Deleted"},
    {"added, sources: "},
    {"handleTriggeredTimerExpiry(): Suspending TX"},
    {"handleOverrideTimerExpiry(): Suspending TX"},
    {"handlePeriodicTimerExpiry(): Suspending TX"},
    {"Finished TX"},
    {"the manager failed"},
    {"handlePeriodicGroup()", true},
    {"handlePrunedRptSource()", true},
    {"validateNumPeriodicRoutes(42949", true},
    {"Num routes: ", true},
    {"expected: ", true},
    {"does not match received RP", false, true},
    {", Join, WC", false, true},
    {", Prune, WC", false, true},
    {", Join, RPT", false, true},
    {", Prune, RPT", false, true},
};

/// What a run of worlds knows, also if it dies.
struct Progress {
  U64 seed = 0;
  U64 operations = 0;
  U64 worlds = 0;
  U64 stopped = 0;
  U64 happened[std::size(happenings)] = {};
};

class RandomWorldTest : public testing::TestWithParam<Profile> {
 protected:
  RandomWorldTest()
      : progress_(new (mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                            0)) Progress) {
    Names::useIpv6(GetParam().ipv6);
  }
  ~RandomWorldTest() override { munmap(progress_, sizeof(Progress)); }

  /// Runs one world after the other. Empty, or what differs.
  std::string run(U64 firstSeed, U64 operations, World::Traces traces = World::Traces::all) {
    for (progress_->seed = firstSeed; progress_->operations < operations; ++progress_->seed) {
      World world(traces);
      Random random(progress_->seed, GetParam());
      for (U32 i = 0; i < operationsPerWorld && !world.stopped(); ++i) {
        auto const difference = world.step(random.operation(world.model()));
        if (!difference.empty()) return difference;
        ++progress_->operations;
        if (progress_->worlds % 4 == 0) count(world.model().events);
      }
      ++progress_->worlds;
      progress_->stopped += world.stopped();
    }
    return {};
  }

  /// The sequence that a seed gives. The library takes no part in it.
  static Sequence sequenceOf(U64 seed) {
    Sequence sequence;
    Model model;
    Random random(seed, GetParam());
    try {
      while (sequence.size() < operationsPerWorld) {
        sequence.push_back(random.operation(model));
        model.step(sequence.back());
      }
    } catch (Stopped const&) {
    }
    return sequence;
  }

  /// What differs, the seed, and a short sequence that shows it.
  std::string report(std::string const& difference) const {
    std::ostringstream text;
    text << "seed " << progress_->seed << " (JOINPRUNE_WORLD_SEED), after " << progress_->operations
         << " operations: " << difference;
    auto const fails = [](Sequence const& sequence) {
      return !apart([&] { return Worlds::difference(sequence); }, 10).empty();
    };
    auto sequence = sequenceOf(progress_->seed);
    if (!fails(sequence)) {
      text << "It takes more than this world to see it again.\n";
      return text.str();
    }
    sequence = shrunk(std::move(sequence), fails);
    text << sequence.size() << " operations are enough:\n"
         << asConversation("A world of seed " + std::to_string(progress_->seed) + ".", sequence)
         << apart([&] { return Worlds::difference(sequence); }, 10);
    return text.str();
  }

  void count(std::vector<Event> const& events) {
    for (auto const& event : events)
      for (std::size_t i = 0; i < std::size(happenings); ++i)
        progress_->happened[i] += event.text.find(happenings[i].part) != event.text.npos;
  }

  Progress* const progress_;
};

TEST_P(RandomWorldTest, TheLibraryDoesWhatTheModelDoes) {
  U64 const operations = fromEnvironment("JOINPRUNE_WORLD_OPERATIONS", usualOperations);
  U64 const seed = fromEnvironment("JOINPRUNE_WORLD_SEED", 1);
  auto const difference = apart([&] { return run(seed, operations); }, 0);
  if (!difference.empty()) FAIL() << report(difference);
  std::cout << progress_->operations << " operations in " << progress_->worlds << " worlds, "
            << progress_->stopped << " of which stopped the process\n";
  ASSERT_GE(progress_->operations, operations);
  for (std::size_t i = 0; i < std::size(happenings); ++i) {
    auto const& happening = happenings[i];
    if (happening.unruly && GetParam().unruly == 0) continue;
    if (happening.received && GetParam().receive < 5) continue;
    if (!thorough() || operations < usualOperations) continue;
    EXPECT_NE(progress_->happened[i], 0u) << happening.part;
  }
}

TEST_P(RandomWorldTest, TheLibraryDoesTheSameWhateverIsTraced) {
  U64 const operations = fromEnvironment("JOINPRUNE_WORLD_OPERATIONS", usualOperations / 4);
  U64 const seed = fromEnvironment("JOINPRUNE_WORLD_SEED", 1);
  for (auto const traces : {World::Traces::few, World::Traces::none}) {
    SCOPED_TRACE(traces == World::Traces::few ? "events and errors" : "nothing");
    progress_->operations = 0;
    auto const difference = apart([&] { return run(seed, operations, traces); }, 0);
    EXPECT_EQ(difference, "") << "seed " << progress_->seed << ", after " << progress_->operations
                              << " operations";
    ASSERT_GE(progress_->operations, operations);
  }
}

INSTANTIATE_TEST_SUITE_P(Profiles, RandomWorldTest, testing::ValuesIn(profiles),
                         [](auto const& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace Routing::Pim::Worlds
