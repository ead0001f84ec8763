// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <stdexcept>

#include "tests/runtime/scrivo/TraceFixture.h"

namespace Routing::Pim {

// Named as in the engine, so that the signature is the one that an operator looks for.
class JoinPruneMessageSm {
 public:
  void handleInitialized() { SCRIVO_BLOCK_TIMER("JoinPruneSm", __PRETTY_FUNCTION__); }

  int handleGroups(int groups) {
    SCRIVO_BLOCK_TIMER("JoinPruneSm", __PRETTY_FUNCTION__);
    if (groups == 0) return 0;
    if (groups < 0) throw std::runtime_error("negative");
    return groups;
  }
};

}  // namespace Routing::Pim

namespace Scrivo::Test {
namespace {

class BlockTimerTest : public TraceFixture {
 protected:
  Routing::Pim::JoinPruneMessageSm sm_;
};

constexpr char const* handleGroups = "int Routing::Pim::JoinPruneMessageSm::handleGroups(int)";

TEST_F(BlockTimerTest, RecordsTheFullSignatureOncePerCall) {
  TraceFile::open(path());
  for (int i = 0; i < 3; ++i) sm_.handleInitialized();
  std::string const signature = "void Routing::Pim::JoinPruneMessageSm::handleInitialized()";
  EXPECT_THAT(timers(), ElementsAre(signature, signature, signature));
  TraceReader const reader(path());
  ASSERT_EQ(reader.descriptors().size(), 1u);
  EXPECT_EQ(reader.descriptors()[0].kind, EventKind::blockTimer);
  EXPECT_THAT(reader.descriptors()[0].pieces, ElementsAre(Piece(signature), Piece(ArgumentKind::integer)));
  EXPECT_EQ(reader.events()[0].source, "JoinPruneSm");
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(BlockTimerTest, RecordsHoweverTheBlockIsLeft) {
  TraceFile::open(path());
  sm_.handleGroups(5);
  EXPECT_THAT(timers(), ElementsAre(handleGroups));
  sm_.handleGroups(0);
  EXPECT_THAT(timers(), ElementsAre(handleGroups, handleGroups));
  EXPECT_THROW(sm_.handleGroups(-1), std::runtime_error);
  EXPECT_THAT(timers(), ElementsAre(handleGroups, handleGroups, handleGroups));
}

TEST_F(BlockTimerTest, MeasuresTheTimeThatTheBlockTook) {
  TraceFile::open(path());
  {
    SCRIVO_BLOCK_TIMER("T", "sleeping");
    usleep(20000);
  }
  TraceReader const reader(path());
  ASSERT_EQ(reader.events().size(), 1u);
  Event const& event = reader.events()[0];
  EXPECT_GT(event.elapsedSeconds, 0.019);
  EXPECT_LT(event.elapsedSeconds, 10);
  EXPECT_EQ(event.arguments[0], Argument(static_cast<std::int64_t>(event.elapsed)));
  EXPECT_DOUBLE_EQ(event.elapsedSeconds,
                   static_cast<double>(event.elapsed) / static_cast<double>(reader.countsPerSecond()));
  EXPECT_GE(event.seconds, event.elapsedSeconds);
  EXPECT_THAT(toText(event),
              testing::MatchesRegex("0\\.[0-9]{9} T [0-9]+: \\[" + std::to_string(event.elapsed) +
                                    " counts, 0\\.[0-9]{9} s\\] sleeping"));
}

TEST_F(BlockTimerTest, RecordsInnerBlocksBeforeOuterOnes) {
  TraceFile::open(path());
  {
    SCRIVO_BLOCK_TIMER("T", "outer");
    { SCRIVO_BLOCK_TIMER("T", "inner"); }
    SCRIVO_BLOCK_TIMER("T", "second in the same block");
  }
  EXPECT_THAT(timers(), ElementsAre("inner", "second in the same block", "outer"));
  TraceReader const reader(path());
  EXPECT_LE(reader.events()[0].elapsed, reader.events()[2].elapsed);
}

TEST_F(BlockTimerTest, WritesNothingWhileNoFileIsOpen) {
  sm_.handleInitialized();
  EXPECT_THAT(filesThere(), IsEmpty());
  TraceFile::open(path());
  TraceReader const reader(path());
  EXPECT_THAT(reader.descriptors(), IsEmpty());
  EXPECT_THAT(reader.events(), IsEmpty());
}

TEST_F(BlockTimerTest, RecordsNothingIfTheFileOpensInsideTheBlock) {
  {
    SCRIVO_BLOCK_TIMER("T", "too early");
    TraceFile::open(path());
  }
  EXPECT_THAT(timers(), IsEmpty());
  EXPECT_THAT(TraceReader(path()).descriptors(), IsEmpty());
}

TEST_F(BlockTimerTest, RecordsNothingIfTheFileClosesInsideTheBlock) {
  TraceFile::open(path());
  {
    SCRIVO_BLOCK_TIMER("T", "too late");
    TraceFile::close();
  }
  EXPECT_THAT(timers(), IsEmpty());
}

TEST_F(BlockTimerTest, RecordsNothingIfAnotherFileOpensInsideTheBlock) {
  TraceFile::open(path("first"));
  {
    SCRIVO_BLOCK_TIMER("T", "between files");
    TraceFile::open(path("second"));
    SCRIVO_BLOCK_TIMER("T", "in the second");
  }
  EXPECT_THAT(timers("first"), IsEmpty());
  EXPECT_THAT(timers("second"), ElementsAre("in the second"));
  EXPECT_EQ(TraceReader(path("second")).damaged(), 0u);
}

TEST_F(BlockTimerTest, IsSilentIfItsDescriptorFindsNoRoom) {
  TraceFile::open(path(), {.descriptorBytes = 0});
  sm_.handleInitialized();
  TraceReader const reader(path());
  EXPECT_THAT(reader.events(), IsEmpty());
  EXPECT_EQ(reader.refusedCallSites(), 1u);
}

TEST_F(BlockTimerTest, DoesNotWashOutMessages) {
  TraceFile::open(path(), smallest);
  SCRIVO_MESSAGE("T", "rare");
  for (int i = 0; i < 10000; ++i) sm_.handleInitialized();
  EXPECT_THAT(messages(), ElementsAre("rare"));
  TraceReader const reader(path());
  EXPECT_EQ(reader.lost(EventKind::message), 0u);
  EXPECT_EQ(reader.lost(EventKind::blockTimer) + reader.events().size() - 1, 10000u);
  for (Event const& event : reader.events()) EXPECT_LT(event.elapsedSeconds, 10);
}

}  // namespace
}  // namespace Scrivo::Test
