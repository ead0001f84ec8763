// SPDX-License-Identifier: Apache-2.0
// What reading a trace file takes, whatever the file says.
#include "tests/memory/CountedHeap.h"
#include "tests/runtime/scrivo/CraftedRing.h"
#include "tests/runtime/scrivo/TraceFixture.h"

namespace Scrivo::Test {
namespace {

class TraceReaderMemoryTest : public TraceFixture {
 protected:
  // The most memory that the reader and its events, one at a time, have in use, in multiples of the file.
  double takes(std::string const& file) {
    write("trace", file);
    std::size_t const before = CountedHeap::liveBytes;
    std::size_t most = 0, seen = 0;
    TraceReader const reader(path());
    EXPECT_EQ(reader.damaged(), 0u);
    for (Event const& event : reader.events()) {
      most = std::max(most, CountedHeap::liveBytes - before);
      seen += event.arguments.size() + 1;
    }
    for (Descriptor const& descriptor : reader.descriptors()) {
      most = std::max(most, CountedHeap::liveBytes - before);
      seen += descriptor.pieces.size();
    }
    EXPECT_GT(seen, 1000u);
    return static_cast<double>(most) / static_cast<double>(file.size());
  }
};

TEST_F(TraceReaderMemoryTest, ShortRecordsOfACallSiteWithALongTextTakeAFewTimesTheFile) {
  CraftedRing ring;
  U32 const id = ring.descriptor(EventKind::message, "T", CraftedRing::literal(std::string(8160, 'x')), 1);
  for (U64 i = 0; i < 10'000; ++i) ring.record(EventKind::message, id, i, "");
  EXPECT_LT(takes(ring.bytes()), 5);
}

TEST_F(TraceReaderMemoryTest, RecordsOfManyEmptyArgumentsTakeAFewTimesTheFile) {
  CraftedRing ring;
  std::string pieces;
  for (int i = 0; i < 4000; ++i) pieces += CraftedRing::place(ArgumentKind::string);
  U32 const id = ring.descriptor(EventKind::message, "T", pieces, 4000);
  for (U64 i = 0; i < 200; ++i) ring.record(EventKind::message, id, i, std::string(4000, '\0'));
  EXPECT_LT(takes(ring.bytes()), 5);
}

TEST_F(TraceReaderMemoryTest, CallSitesOfManyPiecesTakeAFewTimesTheFile) {
  CraftedRing ring;
  std::string pieces;
  for (int i = 0; i < 2700; ++i) pieces += CraftedRing::literal("");
  for (int i = 0; i < 100; ++i) ring.descriptor(EventKind::message, "T", pieces, 2700);
  EXPECT_LT(takes(ring.bytes()), 5);
}

TEST_F(TraceReaderMemoryTest, ADescriptorThatNoWriterWouldMakeIsDamaged) {
  CraftedRing ring;
  std::string const text = CraftedRing::literal(std::string(60'000, 'x'));
  U32 const id = ring.descriptor(EventKind::message, "T", text + text + text, 3);
  for (U64 i = 0; i < 1000; ++i) ring.record(EventKind::message, id, i, "");
  write("trace", ring.bytes());
  TraceReader const reader(path());
  EXPECT_THAT(reader.events(), IsEmpty());
  EXPECT_STREQ(reader.damages().at(0).what, "the size of a descriptor");
}

}  // namespace
}  // namespace Scrivo::Test
