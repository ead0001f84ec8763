// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <sstream>

#include "tests/Thorough.h"
#include "tests/runtime/scrivo/TraceFixture.h"

namespace Scrivo::Test {
namespace {

using Dova::IpGenAddr;

class TraceReaderTest : public TraceFixture {
 protected:
  // A file with all kinds of pieces and a ring that has wrapped around.
  void writeExample() {
    TraceFile::open(path(), smallest);
    for (int i = 0; i < 400; ++i) {
      SCRIVO_BLOCK_TIMER("Sm", __PRETTY_FUNCTION__);
      SCRIVO_MESSAGE("Sm", "to ", IpGenAddr("10.0.0.2"), " on ", std::string("eth0"), " holds ", i);
      SCRIVO_MESSAGE("Sm", "from ", IpGenAddr("fe80::1"));
    }
    TraceFile::close();
    example_ = bytesOf();
  }

  // A file of two messages, "first 1" and "second 2".
  void writeTwo() {
    TraceFile::open(path(), smallest);
    SCRIVO_MESSAGE("Sm", "first ", 1);
    SCRIVO_MESSAGE("Sm", "second ", 2);
    TraceFile::close();
    example_ = bytesOf();
  }

  Format::FileHeader header() const {
    Format::FileHeader header;
    std::memcpy(&header, example_.data(), sizeof header);
    return header;
  }

  template <class Value>
  void patch(std::size_t offset, Value value) {
    std::string patched = example_;
    ASSERT_LE(offset + sizeof value, patched.size());
    std::memcpy(patched.data() + offset, &value, sizeof value);
    write("trace", patched);
  }

  std::string example_;
};

TEST_F(TraceReaderTest, SaysWhichFileIsMissing) {
  EXPECT_EQ(verdict("missing"), "No such file or directory");
}

TEST_F(TraceReaderTest, RefusesWhatIsNoFile) {
  std::filesystem::create_directory(path("folder"));
  EXPECT_EQ(verdict("folder"), "Is a directory");
  EXPECT_THROW(TraceReader("/dev/null"), Vel::RangeException);
}

TEST_F(TraceReaderTest, RefusesWhatIsNoTraceFile) {
  write("empty", "");
  EXPECT_EQ(verdict("empty"), "not a trace file: 0 bytes have no room for a header");
  write("short", "Scrivo\r\n");
  EXPECT_EQ(verdict("short"), "not a trace file: 8 bytes have no room for a header");
  write("zeros", std::string(100000, '\0'));
  EXPECT_EQ(verdict("zeros"), "not a trace file: it does not begin like one");
  write("text", std::string(100000, 'x'));
  EXPECT_EQ(verdict("text"), "not a trace file: it does not begin like one");
}

TEST_F(TraceReaderTest, RefusesAFileThatIsLongerThanItSays) {
  writeExample();
  ASSERT_EQ(verdict(), "read");
  write("trace", example_ + "x");
  EXPECT_EQ(verdict(), std::to_string(example_.size() + 1) + " bytes, but the header says " +
                           std::to_string(example_.size()));
}

TEST_F(TraceReaderTest, RefusesAHeaderThatContradictsItselfAboutTheLengthOfTheFile) {
  writeTwo();
  patch(offsetof(Format::FileHeader, fileBytes), static_cast<U64>(example_.size() + 8));
  EXPECT_EQ(verdict(), "the header says " + std::to_string(example_.size() + 8) +
                           " bytes, but the last area ends at " + std::to_string(example_.size()));
}

TEST_F(TraceReaderTest, ReadsOfAFileThatWasCutOffWhatIsWhole) {
  writeExample();
  Format::FileHeader const layout = header();
  std::vector<Event> const whole = TraceReader(path()).events();
  // Where a record of a ring lies; the first that was kept lies at the tail.
  auto const offsets = [&](EventKind kind) {
    std::vector<U64> ends;
    Format::Area const& area = layout.rings[Format::ringIndex(kind)];
    Format::RingState const& state = layout.ringStates[Format::ringIndex(kind)];
    for (U64 at = state.tail; at != state.head;) {
      U32 start[2];
      std::memcpy(start, example_.data() + area.offset + at % area.bytes, sizeof start);
      at += start[0];
      if (start[1] != Format::fillerId) ends.push_back(area.offset + (at - start[0]) % area.bytes + start[0]);
    }
    return ends;
  };
  std::vector<U64> const ends[] = {offsets(EventKind::message), offsets(EventKind::blockTimer)};
  ASSERT_GT(ends[0].front(), ends[0].back());  // it has wrapped around

  std::size_t least = whole.size(), most = 0;
  for (std::size_t size = example_.size() - 1; size >= Format::headerBytes;
       size -= size % (Routing::thorough() ? 61 : 181) + 1) {
    SCOPED_TRACE(std::to_string(size) + " of " + std::to_string(example_.size()) + " bytes");
    write("trace", example_.substr(0, size));
    TraceReader const reader(path());
    ASSERT_EQ(reader.missingBytes(), example_.size() - size);
    std::size_t next[2] = {0, 0};
    std::vector<std::string> expected, read;
    bool const described = size >= layout.descriptors.offset + layout.descriptors.bytes;
    for (Event const& event : whole) {
      U32 const ring = Format::ringIndex(event.kind);
      U64 const end = ends[ring][next[ring]++];
      if (described && end <= size) expected.push_back(toText(event));
    }
    for (Event const& event : reader.events()) read.push_back(toText(event));
    ASSERT_EQ(read, expected);
    for (Damage const& damage : reader.damages()) {
      ASSERT_STREQ(damage.what, "the end of the file");
      ASSERT_LE(damage.offset, std::max<U64>(size, layout.rings[1].offset));
    }
    least = std::min(least, read.size());
    most = std::max(most, read.size());
  }
  EXPECT_EQ(least, 0u);
  EXPECT_GT(most, whole.size() / 2);
}

TEST_F(TraceReaderTest, SaysWhereADamageIsAndWhatItIs) {
  writeTwo();
  U64 const record = header().rings[0].offset;
  auto const damage = [this] {
    TraceReader const reader(path());
    return reader.damages().size() == 1
               ? std::to_string(reader.damages()[0].offset) + ": " + reader.damages()[0].what
               : std::to_string(reader.damages().size()) + " damages";
  };
  patch(record + offsetof(Format::RecordHeader, id), U32(99));
  EXPECT_EQ(damage(), std::to_string(record) + ": a record of an unknown call site");
  U32 bytes;
  std::memcpy(&bytes, example_.data() + record, sizeof bytes);
  patch(record + bytes, U32(12));
  EXPECT_EQ(damage(), std::to_string(record + bytes) + ": the size of a record");
  patch(record + bytes + offsetof(Format::RecordHeader, id), U32(99));
  EXPECT_EQ(damage(), std::to_string(record + bytes) + ": a record of an unknown call site");
  patch(record, U32(48));
  EXPECT_EQ(damage(), std::to_string(record) + ": a record");
  patch(offsetof(Format::FileHeader, descriptorCount), U64(3));
  U32 descriptors[2];
  std::memcpy(&descriptors[0], example_.data() + 4096, 4);
  std::memcpy(&descriptors[1], example_.data() + 4096 + descriptors[0], 4);
  EXPECT_EQ(damage(), std::to_string(4096 + descriptors[0] + descriptors[1]) + ": the size of a descriptor");
  // Cut off in the second descriptor, the file has nothing that could be said about the rings either.
  write("trace", example_.substr(0, 4096 + descriptors[0] + 8));
  TraceReader const cut(path());
  ASSERT_FALSE(cut.damages().empty());
  EXPECT_EQ(cut.damages()[0].offset, 4096 + descriptors[0]);
  EXPECT_STREQ(cut.damages()[0].what, "the end of the file");
  EXPECT_EQ(cut.descriptors().size(), 1u);
  // A descriptor that ends where the file does is whole.
  write("trace", example_.substr(0, 4096 + descriptors[0]));
  EXPECT_EQ(TraceReader(path()).descriptors().size(), 1u);
}

TEST_F(TraceReaderTest, ReadsADescriptorThatJustFitsItsArea) {
  for (U64 room = 24;; room += 8) {
    ASSERT_LT(room, 200u);
    TraceFile::open(path(), {.messageBytes = 8192, .timerBytes = 8192, .descriptorBytes = room});
    SCRIVO_MESSAGE("Sm", "just ", 1);
    TraceFile::close();
    TraceReader const reader(path());
    EXPECT_EQ(reader.damaged(), 0u);
    if (reader.refusedCallSites() != 0) continue;
    EXPECT_THAT(messages(), ElementsAre("just 1"));
    // Nor does a file end too early that ends with it.
    example_ = bytesOf();
    U32 bytes;
    std::memcpy(&bytes, example_.data() + 4096, sizeof bytes);
    EXPECT_EQ(bytes, room);
    return;
  }
}

TEST_F(TraceReaderTest, ABlockTimersDescriptorHasASignatureAndACount) {
  TraceFile::open(path(), smallest);
  { SCRIVO_BLOCK_TIMER("Sm", "void f()"); }
  TraceFile::close();
  example_ = bytesOf();
  std::size_t const source = header().descriptors.offset + sizeof(Format::DescriptorHeader);
  std::size_t const pieces = source + 2 + 2;    // a literal, and what is counted
  std::size_t const last = pieces + 1 + 2 + 8;  // behind "void f()"
  ASSERT_EQ(static_cast<U8>(example_[last]), static_cast<U8>(ArgumentKind::integer));
  auto const isRefused = [this] {
    TraceReader const reader(path());
    EXPECT_TRUE(reader.descriptors().empty());
    EXPECT_TRUE(reader.events().empty());
    EXPECT_STREQ(reader.damages().at(0).what, "a descriptor");
  };
  patch(last, static_cast<U8>(ArgumentKind::string));
  isRefused();
  patch(header().descriptors.offset + offsetof(Format::DescriptorHeader, pieces), Format::U16(1));
  isRefused();
}

TEST_F(TraceReaderTest, RefusesOtherVersionsAndByteOrders) {
  writeTwo();
  patch(offsetof(Format::FileHeader, version), U32(2));
  EXPECT_EQ(verdict(), "version 2 is not known here, only 1");
  patch(offsetof(Format::FileHeader, byteOrder), U32(0x04030201));
  EXPECT_EQ(verdict(), "written by a machine of another byte order");
}

TEST_F(TraceReaderTest, RefusesAreasThatDoNotFit) {
  writeTwo();
  std::string const size = std::to_string(example_.size());
  patch(offsetof(Format::FileHeader, descriptors.offset), ~U64(7));
  EXPECT_EQ(verdict(),
            "the area of descriptors has 16384 bytes at 18446744073709551608 in a file of " + size);
  patch(offsetof(Format::FileHeader, rings[0].bytes), U64(1) << 40);
  EXPECT_EQ(verdict(), "the area of messages has 1099511627776 bytes at 20480 in a file of " + size);
  patch(offsetof(Format::FileHeader, rings[1].offset), U64(28676));
  EXPECT_EQ(verdict(), "the area of block timers has 8192 bytes at 28676 in a file of " + size);
  patch(offsetof(Format::FileHeader, rings[1].bytes), U64(0));
  EXPECT_EQ(verdict(), "the area of block timers has 0 bytes at 28672 in a file of " + size);
}

TEST_F(TraceReaderTest, RefusesRingPositionsThatCannotBe) {
  writeTwo();
  U64 const head = header().ringStates[0].head;
  patch(offsetof(Format::FileHeader, ringStates[0].tail), head + 8);
  EXPECT_EQ(verdict(), "the ring of messages lies between 56 and 48");
  patch(offsetof(Format::FileHeader, ringStates[0].head), U64(8200));
  EXPECT_EQ(verdict(), "the ring of messages lies between 0 and 8200");
  patch(offsetof(Format::FileHeader, ringStates[1].head), U64(4));
  EXPECT_EQ(verdict(), "the ring of block timers lies between 0 and 4");
  patch(offsetof(Format::FileHeader, countsPerSecond), U64(0));
  EXPECT_EQ(verdict(), "the header gives no rate of the cycle counter");
}

TEST_F(TraceReaderTest, SkipsAndCountsARecordOfAnUnknownCallSite) {
  writeTwo();
  std::size_t const record = header().rings[0].offset;
  patch(record + offsetof(Format::RecordHeader, id), U32(99));
  EXPECT_THAT(messages(), ElementsAre("second 2"));
  EXPECT_EQ(TraceReader(path()).damaged(), 1u);
}

TEST_F(TraceReaderTest, SkipsTheRestOfARingAfterARecordOfDamagedSize) {
  writeTwo();
  std::size_t const record = header().rings[0].offset;
  for (U32 const bytes : {0u, 8u, 12u, 72u, 8192u, 0xfffffff8u, 0xffffffffu}) {
    patch(record + offsetof(Format::RecordHeader, bytes), bytes);
    EXPECT_THAT(messages(), IsEmpty()) << bytes;
    EXPECT_EQ(TraceReader(path()).damaged(), 1u) << bytes;
  }
}

TEST_F(TraceReaderTest, SkipsARecordThatIsLongerThanItsArguments) {
  writeTwo();
  // It covers the second record as well.
  patch(header().rings[0].offset + offsetof(Format::RecordHeader, bytes), U32(64));
  EXPECT_THAT(messages(), IsEmpty());
  EXPECT_EQ(TraceReader(path()).damaged(), 1u);
}

TEST_F(TraceReaderTest, SkipsARecordWhoseCallSiteBelongsToTheOtherRing) {
  writeTwo();
  patch(header().descriptors.offset + offsetof(Format::DescriptorHeader, kind), U8(EventKind::blockTimer));
  // The descriptor has become one of a block timer, and its pieces allow that.
  TraceReader const reader(path());
  EXPECT_THAT(messages(), ElementsAre("second 2"));
  EXPECT_EQ(reader.descriptors()[0].kind, EventKind::blockTimer);
  EXPECT_EQ(reader.damaged(), 1u);
}

TEST_F(TraceReaderTest, SkipsADamagedDescriptorAndItsRecords) {
  writeTwo();
  std::size_t const descriptor = header().descriptors.offset;
  std::size_t const source = descriptor + sizeof(Format::DescriptorHeader);
  std::size_t const firstPiece = source + 2 + 2;
  auto const onlySecondIsLeft = [this] {
    EXPECT_THAT(messages(), ElementsAre("second 2"));
    EXPECT_EQ(TraceReader(path()).descriptors().size(), 1u);
    EXPECT_EQ(TraceReader(path()).damaged(), 2u);
  };
  patch(descriptor + offsetof(Format::DescriptorHeader, id), U32(2));
  onlySecondIsLeft();
  patch(descriptor + offsetof(Format::DescriptorHeader, kind), U8(3));
  onlySecondIsLeft();
  patch(descriptor + offsetof(Format::DescriptorHeader, pieces), Format::U16(60000));
  onlySecondIsLeft();
  patch(source, Format::U16(0xffff));
  onlySecondIsLeft();
  patch(firstPiece, U8(4));
  onlySecondIsLeft();
  patch(firstPiece + 1, Format::U16(300));
  onlySecondIsLeft();
}

TEST_F(TraceReaderTest, SkipsTheRestOfTheDescriptorsAfterOneOfDamagedSize) {
  writeTwo();
  for (U32 const bytes : {0u, 8u, 12u, 16400u, 0xfffffff8u}) {
    patch(header().descriptors.offset + offsetof(Format::DescriptorHeader, bytes), bytes);
    TraceReader const reader(path());
    EXPECT_THAT(reader.descriptors(), IsEmpty()) << bytes;
    EXPECT_THAT(reader.events(), IsEmpty()) << bytes;
    EXPECT_EQ(reader.damaged(), 3u) << bytes;
  }
}

TEST_F(TraceReaderTest, DoesNotBelieveACountOfDescriptors) {
  writeTwo();
  patch(offsetof(Format::FileHeader, descriptorCount), ~U64(0));
  EXPECT_THAT(messages(), ElementsAre("first 1", "second 2"));
  EXPECT_EQ(TraceReader(path()).damaged(), 1u);
  patch(offsetof(Format::FileHeader, descriptorCount), U64(1));
  EXPECT_THAT(messages(), ElementsAre("first 1"));
}

TEST_F(TraceReaderTest, StandsExtremeNumbersAnywhereInTheHeader) {
  writeExample();
  int refused = 0, read = 0;
  for (std::size_t offset = 0; offset < sizeof(Format::FileHeader); offset += 4)
    for (U64 const value :
         {U64(0), U64(1), U64(7), U64(8), U64(4096), U64(8192), U64(1) << 31, U64(1) << 32, U64(1) << 62,
          U64(1) << 63, ~U64(0), ~U64(7), static_cast<U64>(example_.size())}) {
      if (offset + sizeof value > sizeof(Format::FileHeader)) continue;
      patch(offset, value);
      ++(verdict() == "read" ? read : refused);
    }
  EXPECT_GT(refused, 100);
  EXPECT_GT(read, 50);
}

TEST_F(TraceReaderTest, StandsRandomDamageAnywhere) {
  writeExample();
  Format::FileHeader const layout = header();
  std::size_t const starts[] = {0, layout.descriptors.offset, layout.rings[0].offset, layout.rings[1].offset};
  std::size_t const sizes[] = {sizeof layout, 300, layout.rings[0].bytes, layout.rings[1].bytes};
  int refused = 0, damaged = 0;
  for (unsigned seed = 1; seed <= (Routing::thorough() ? 3000 : 200); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::string bytes = example_;
    for (unsigned count = 1 + random() % 16; count > 0; --count) {
      // The header seldom, as nearly all damage there is refused.
      unsigned const area = random() % 16 == 0 ? 0 : 1 + random() % 3;
      bytes[starts[area] + random() % sizes[area]] = static_cast<char>(random());
    }
    write("trace", bytes);
    if (verdict() != "read") {
      ++refused;
      continue;
    }
    TraceReader const reader(path());
    if (reader.damaged() > 0) ++damaged;
    std::ostringstream text;
    for (Descriptor const& descriptor : reader.descriptors()) text << descriptor << "\n";
    for (Event const& event : reader.events()) text << event << "\n";
    std::string const lines = text.str();
    ASSERT_EQ(static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n')),
              reader.descriptors().size() + reader.events().size());
  }
  EXPECT_GT(refused, Routing::thorough() ? 300 : 20);
  EXPECT_GT(damaged, Routing::thorough() ? 1000 : 60);
}

TEST_F(TraceReaderTest, NamesKindsInText) {
  std::ostringstream text;
  text << EventKind::message << ", " << EventKind::blockTimer << ", " << EventKind(9) << ", "
       << ArgumentKind::address << ", " << ArgumentKind::string << ", " << ArgumentKind::integer << ", "
       << ArgumentKind(0);
  EXPECT_EQ(text.str(), "message, block timer, EventKind(9), address, string, integer, ArgumentKind(0)");
}

TEST_F(TraceReaderTest, PutsAMessageOnOneLineWithTimeSourceAndLine) {
  TraceFile::open(path());
  U32 const line = __LINE__ + 1;
  SCRIVO_MESSAGE("JoinPruneSm", "Sending to ", IpGenAddr("10.0.0.2"));
  TraceReader const reader(path());
  ASSERT_EQ(reader.events().size(), 1u);
  EXPECT_THAT(toText(reader.events()[0]),
              testing::MatchesRegex("0\\.[0-9]{9} JoinPruneSm " + std::to_string(line) +
                                    ": Sending to 10\\.0\\.0\\.2"));
  std::ostringstream stream;
  stream << reader.events()[0] << reader.descriptors()[0];
  EXPECT_EQ(stream.str(),
            toText(reader.events()[0]) + "JoinPruneSm " + std::to_string(line) + ": Sending to <address>");
}

}  // namespace
}  // namespace Scrivo::Test
