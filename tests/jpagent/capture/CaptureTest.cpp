// SPDX-License-Identifier: Apache-2.0
// Capture files, made by libpcap or by hand, good and bad.
#include "jpagent/capture/Capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "tests/jpagent/Support.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;

std::string const linkNames[] = {"ethernet", "raw", "cooked", "cooked2", "ppp", "unknown"};

/// "1 0.000000 ethernet 2 bytes; 2 ...", with the error at the end if there is one.
std::string shown(std::string const& path) {
  std::string text;
  try {
    Capture capture(path);
    Frame frame;
    while (capture.next(frame)) {
      if (!text.empty()) text += "; ";
      text += std::to_string(frame.number) + " " + std::to_string(frame.time) + " " +
              linkNames[static_cast<int>(frame.link)] + " " + std::to_string(frame.bytes.size()) + " bytes";
    }
  } catch (CaptureError const& e) {
    text += (text.empty() ? "" : "; ") + std::string(e.what());
  }
  return text;
}

Bytes const twoBytes = {1, 2};

class CaptureTest : public testing::Test {
 protected:
  TemporaryFolder folder_;
};

TEST_F(CaptureTest, EveryLinkTypeThatCarriesIpIsKnown) {
  struct {
    int number;
    char const* link;
  } const rows[] = {{DLT_EN10MB, "ethernet"}, {DLT_RAW, "raw"},          {DLT_IPV4, "raw"},
                    {DLT_IPV6, "raw"},        {DLT_LINUX_SLL, "cooked"}, {DLT_LINUX_SLL2, "cooked2"},
                    {DLT_PPP, "ppp"},         {DLT_PPP_SERIAL, "ppp"}};
  for (auto const& row : rows) {
    EXPECT_EQ(shown(writeCapture(folder_, row.number, {{5, twoBytes}})),
              std::string("1 0.000000 ") + row.link + " 2 bytes")
        << row.number;
  }
}

TEST_F(CaptureTest, AnotherLinkTypeIsRefusedByName) {
  auto const path = writeCapture(folder_, DLT_IEEE802_11, {{0, twoBytes}});
  EXPECT_EQ(shown(path), path + ": link type IEEE802_11 (105) is not supported");
}

TEST_F(CaptureTest, TimeCountsFromTheFirstFrameAndMayGoBack) {
  auto const path = writeCapture(folder_, DLT_EN10MB,
                                 {{1'215'241'072'145'303, twoBytes},
                                  {1'215'241'082'994'044, twoBytes},
                                  {1'215'241'071'000'000, twoBytes}});
  EXPECT_EQ(shown(path),
            "1 0.000000 ethernet 2 bytes; 2 10.848741 ethernet 2 bytes; 3 -1.145303 ethernet 2 bytes");
}

TEST_F(CaptureTest, TimeIsTheNumberNearestToWhatTheFileSays) {
  auto const path = writeCapture(folder_, DLT_EN10MB, {{145'303, twoBytes}, {10'994'044, twoBytes}});
  Capture capture(path);
  Frame frame;
  ASSERT_TRUE(capture.next(frame) && capture.next(frame));
  EXPECT_EQ(frame.time, 10.848741);
}

TEST_F(CaptureTest, PcapngIsReadLikePcap) {
  auto const path = folder_.with("a.pcapng", pcapngFile(1, {{1'000'000, twoBytes}, {3'500'000, Bytes(61)}}));
  EXPECT_EQ(shown(path), "1 0.000000 ethernet 2 bytes; 2 2.500000 ethernet 61 bytes");
}

TEST_F(CaptureTest, PcapngWithAbsurdTimesIsReadAllTheSame) {
  auto const path =
      folder_.with("a.pcapng", pcapngFile(1, {{~std::uint64_t{0}, twoBytes}, {0, twoBytes}, {1, twoBytes}}));
  EXPECT_EQ(shown(path),
            "1 0.000000 ethernet 2 bytes; 2 -18446744073709.000000 ethernet 2 bytes; "
            "3 -18446744073709.000000 ethernet 2 bytes");
}

/// A pcapng file, written block by block in either byte order.
class Pcapng {
 public:
  explicit Pcapng(bool bigEndian) : bigEndian_(bigEndian) { section(); }

  Bytes number(std::uint64_t value, int size) const {
    Bytes bytes;
    for (int i = 0; i < size; ++i) {
      int const shift = 8 * (bigEndian_ ? size - 1 - i : i);
      bytes.push_back(static_cast<U8>(value >> shift));
    }
    return bytes;
  }
  static Bytes padded(Bytes bytes) {
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
  }
  Bytes option(int code, Bytes const& value) const {
    return number(static_cast<std::uint64_t>(code), 2) + number(value.size(), 2) + padded(value);
  }

  Pcapng& block(std::uint32_t type, Bytes const& body) {
    auto const length = number(body.size() + 12, 4);
    bytes_ = bytes_ + number(type, 4) + length + body + length;
    return *this;
  }
  Pcapng& section() {
    return block(0x0a0d0d0a,
                 number(0x1a2b3c4d, 4) + number(1, 2) + number(0, 2) + number(~std::uint64_t{0}, 8));
  }
  Pcapng& interface(std::uint64_t link, std::uint64_t snapLength = 0, Bytes const& options = {}) {
    return block(1, number(link, 2) + number(0, 2) + number(snapLength, 4) + options);
  }
  Pcapng& enhanced(std::uint64_t interface, std::uint64_t time, Bytes const& packet) {
    return block(6, number(interface, 4) + timeAndLengths(time, packet) + padded(packet));
  }
  Pcapng& obsolete(std::uint64_t interface, std::uint64_t time, Bytes const& packet) {
    return block(2, number(interface, 2) + number(7, 2) + timeAndLengths(time, packet) + padded(packet));
  }
  Pcapng& simple(std::uint64_t length, Bytes const& packet) {
    return block(3, number(length, 4) + padded(packet));
  }

  Bytes const& bytes() const { return bytes_; }

 private:
  Bytes timeAndLengths(std::uint64_t time, Bytes const& packet) const {
    return number(time >> 32, 4) + number(time & 0xffffffff, 4) + number(packet.size(), 4) +
           number(packet.size(), 4);
  }

  bool const bigEndian_;
  Bytes bytes_;
};

class PcapngTest : public CaptureTest, public testing::WithParamInterface<bool> {
 protected:
  std::string shownOf(Bytes const& bytes) { return shown(folder_.with("a.pcapng", bytes)); }
  /// What is wrong, without the name of the file.
  std::string errorOf(Bytes const& bytes) {
    auto const text = shownOf(bytes);
    auto const path = folder_.file("a.pcapng") + ": ";
    auto const at = text.find(path);
    return at == text.npos ? "no error: " + text : text.substr(at + path.size());
  }
  Pcapng ng_{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(ByteOrders, PcapngTest, testing::Bool(),
                         [](auto const& tested) { return tested.param ? "Big" : "Little"; });

TEST_P(PcapngTest, InterfacesMayDifferInLinkTypeAndSnapLength) {
  ng_.interface(1, 96).interface(101, 65535).interface(113);
  ng_.enhanced(1, 1'000'000, twoBytes).enhanced(0, 1'500'000, Bytes(3)).enhanced(2, 2'000'000, Bytes(4));
  ng_.interface(9, 128).enhanced(3, 3'000'000, Bytes(5));
  EXPECT_EQ(shownOf(ng_.bytes()),
            "1 0.000000 raw 2 bytes; 2 0.500000 ethernet 3 bytes; 3 1.000000 cooked 4 bytes; "
            "4 2.000000 ppp 5 bytes");
}

TEST_P(PcapngTest, EachInterfaceHasAClockOfItsOwn) {
  ng_.interface(1)
      .interface(1, 0, ng_.option(9, {9}))
      .interface(1, 0, ng_.option(2, {'e', 't', 'h'}) + ng_.option(9, {0x8a}) + ng_.option(0, {}))
      .interface(1, 0, ng_.option(9, {0}) + ng_.option(14, ng_.number(100, 8)))
      .interface(1, 0, ng_.option(14, ng_.number(~std::uint64_t{0}, 8)));
  ng_.enhanced(0, 1'000'000, twoBytes)
      .enhanced(1, 1'500'000'000, twoBytes)
      .enhanced(2, 2048 + 256, twoBytes)
      .enhanced(3, 5, twoBytes)
      .enhanced(4, 3'000'000, twoBytes);
  EXPECT_EQ(shownOf(ng_.bytes()),
            "1 0.000000 ethernet 2 bytes; 2 0.500000 ethernet 2 bytes; 3 1.250000 ethernet 2 bytes; "
            "4 104.000000 ethernet 2 bytes; 5 1.000000 ethernet 2 bytes");
}

TEST_P(PcapngTest, PacketBlocksOfEveryKindAreRead) {
  ng_.interface(1, 3).interface(101);
  ng_.simple(2, twoBytes)
      .obsolete(1, 1'000'000, twoBytes)
      .simple(60, Bytes(3))
      .enhanced(0, 2'000'000, Bytes(7))
      .simple(1, {1});
  EXPECT_EQ(shownOf(ng_.bytes()),
            "1 0.000000 ethernet 2 bytes; 2 0.000000 raw 2 bytes; 3 0.000000 ethernet 3 bytes; "
            "4 1.000000 ethernet 7 bytes; 5 1.000000 ethernet 1 bytes");
}

TEST_P(PcapngTest, ASectionHasAByteOrderAndInterfacesOfItsOwn) {
  ng_.interface(101).enhanced(0, 1'000'000, twoBytes);
  Pcapng other(!GetParam());
  other.interface(1).enhanced(0, 3'000'000, Bytes(3));
  EXPECT_EQ(shownOf(ng_.bytes() + other.bytes()), "1 0.000000 raw 2 bytes; 2 2.000000 ethernet 3 bytes");
  Pcapng bare(!GetParam());
  bare.enhanced(0, 3'000'000, Bytes(3));
  EXPECT_EQ(errorOf(ng_.bytes() + bare.bytes()),
            "after frame 1: a packet of interface 0, but 0 are described");
}

TEST_P(PcapngTest, BlocksOfOtherKindsAreSkippedHoweverLongTheyAre) {
  ng_.interface(1).block(5, Bytes(20'000)).enhanced(0, 0, twoBytes).block(0x80000001, {});
  EXPECT_EQ(shownOf(ng_.bytes()), "1 0.000000 ethernet 2 bytes");
}

TEST_P(PcapngTest, AFrameOfAnUnknownLinkTypeIsMarkedAndAFileOfThemAloneIsRefused) {
  ng_.interface(105).enhanced(0, 0, twoBytes);
  EXPECT_EQ(errorOf(ng_.bytes()), "link type IEEE802_11 (105) is not supported");
  ng_.interface(1).enhanced(1, 0, twoBytes);
  EXPECT_EQ(shownOf(ng_.bytes()), "1 0.000000 unknown 2 bytes; 2 0.000000 ethernet 2 bytes");
}

TEST_P(PcapngTest, WhatIsWrongIsSaid) {
  auto const start = Pcapng(GetParam()).interface(1).enhanced(0, 0, twoBytes).bytes();
  auto const behind = [&](std::uint32_t type, Bytes const& body) {
    auto const section = Pcapng(GetParam()).bytes();
    auto const sectionAndBlock = Pcapng(GetParam()).block(type, body).bytes();
    return errorOf(start + Bytes(sectionAndBlock.begin() + static_cast<std::ptrdiff_t>(section.size()),
                                 sectionAndBlock.end()));
  };
  auto const bytes = [&](std::uint64_t value) { return ng_.number(value, 4); };
  auto const after = [&](Bytes const& more) { return errorOf(start + more); };
  EXPECT_EQ(after(bytes(6)), "after frame 1: the file ends in a block header, after 4 of 8 bytes");
  EXPECT_EQ(after(bytes(6) + bytes(0)), "after frame 1: a block of 0 bytes");
  EXPECT_EQ(after(bytes(6) + bytes(33) + Bytes(40)), "after frame 1: a block of 33 bytes");
  EXPECT_EQ(after(bytes(6) + bytes(32) + Bytes(10)), "after frame 1: the file ends in a block");
  EXPECT_EQ(after(bytes(5) + bytes(0xfffffffc) + Bytes(10)), "after frame 1: the file ends in a block");
  EXPECT_EQ(after(bytes(6) + bytes(0xfffffffc)), "after frame 1: a block of 4294967292 bytes is too long");
  EXPECT_EQ(after(bytes(6) + bytes(16 << 20) + Bytes(100)), "after frame 1: the file ends in a block");
  EXPECT_EQ(after(bytes(5) + bytes(12) + bytes(16)),
            "after frame 1: a block begins with 12 as its length and ends with 16");
  EXPECT_EQ(after(bytes(0x0a0d0d0a) + bytes(28) + Bytes(20)), "after frame 1: unknown file format");
  EXPECT_EQ(behind(0x0a0d0d0a, bytes(0x1a2b3c4d) + ng_.number(2, 2) + Bytes(10)),
            "after frame 1: version 2.0 of pcapng is not supported");
  EXPECT_EQ(behind(0x0a0d0d0a, bytes(0x1a2b3c4d)),
            "after frame 1: a block of type 168627466 has 4 bytes and needs 16");
  EXPECT_EQ(behind(6, Bytes(16)), "after frame 1: a block of type 6 has 16 bytes and needs 20");
  EXPECT_EQ(behind(2, Bytes(16)), "after frame 1: a block of type 2 has 16 bytes and needs 20");
  EXPECT_EQ(behind(3, {}), "after frame 1: a block of type 3 has 0 bytes and needs 4");
  EXPECT_EQ(behind(3, bytes(9) + Bytes(8)), "after frame 1: a packet of 9 bytes in a block that has 8");
  EXPECT_EQ(behind(6, bytes(0) + Bytes(8) + bytes(5) + bytes(5) + Bytes(4)),
            "after frame 1: a packet of 5 bytes in a block that has 4");
  EXPECT_EQ(behind(6, bytes(1) + Bytes(16)), "after frame 1: a packet of interface 1, but 1 are described");
  EXPECT_EQ(behind(1, bytes(1)), "after frame 1: a block of type 1 has 4 bytes and needs 8");
  auto const interface = [&](Bytes const& options) { return behind(1, Bytes(8) + options); };
  EXPECT_EQ(interface(ng_.number(9, 2) + ng_.number(5, 2) + Bytes(4)),
            "after frame 1: option 9 of an interface exceeds its block");
  EXPECT_EQ(interface(ng_.option(9, {6, 6})), "after frame 1: option 9 of an interface has 2 bytes");
  EXPECT_EQ(interface(ng_.option(14, {6, 6})), "after frame 1: option 14 of an interface has 2 bytes");
  EXPECT_EQ(interface(ng_.option(9, {20})),
            "after frame 1: an interface has a clock of 1/10^20 seconds, which is too fine");
  EXPECT_EQ(interface(ng_.option(9, {0xc0})),
            "after frame 1: an interface has a clock of 1/2^64 seconds, which is too fine");
}

TEST_P(PcapngTest, EveryTruncationShowsWhatCameBefore) {
  auto const whole =
      Pcapng(GetParam()).interface(1).enhanced(0, 0, twoBytes).enhanced(0, 0, twoBytes).bytes();
  for (std::size_t size = whole.size() - 1; size > whole.size() - 36; --size) {
    auto const text = shownOf(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    auto const error = folder_.file("a.pcapng") + ": after frame 1: the file ends in a block";
    EXPECT_EQ(text.rfind("1 0.000000 ethernet 2 bytes; " + error, 0), 0u) << text;
  }
  EXPECT_EQ(errorOf(Bytes(whole.begin(), whole.begin() + 20)), "not a capture: the file ends in a block");
  EXPECT_EQ(errorOf(Bytes(1, 0x0a)), "not a capture: the file ends in a block header, after 1 of 8 bytes");
  EXPECT_EQ(errorOf(Bytes(100, 0x0a)), "not a capture: unknown file format");
}

TEST_P(PcapngTest, NoBytesAtAllMakeItReadBeyondThem) {
  auto const whole = Pcapng(GetParam())
                         .interface(1, 96, ng_.option(9, {9}) + ng_.option(14, ng_.number(1, 8)))
                         .interface(101)
                         .enhanced(1, 7, Bytes(5))
                         .simple(3, Bytes(3))
                         .block(5, Bytes(8))
                         .obsolete(0, 9, Bytes(6))
                         .bytes();
  auto const path = folder_.file("a.pcapng");
  unsigned toTheEnd = 0;
  for (unsigned seed = 0; seed < 1000; ++seed) {
    std::mt19937 random(seed);
    auto bytes = whole;
    for (unsigned changes = 1 + random() % 3; changes; --changes)
      bytes[random() % bytes.size()] = static_cast<U8>(random() % 2 ? random() : random() % 48);
    folder_.with("a.pcapng", bytes);
    try {
      Capture capture(path);
      Frame frame;
      for (U64 number = 1; capture.next(frame); ++number) {
        EXPECT_EQ(frame.number, number);
        EXPECT_LE(frame.bytes.size(), bytes.size());
        unsigned sum = 0;
        for (U8 const byte : frame.bytes) sum += byte;  // they are all there
        EXPECT_LE(sum, 255 * frame.bytes.size());
      }
      ++toTheEnd;
    } catch (CaptureError const& e) {
      EXPECT_EQ(std::string(e.what()).rfind(path + ": ", 0), 0u) << "seed " << seed;
    }
  }
  EXPECT_GT(toTheEnd, 100u);
  EXPECT_LT(toTheEnd, 900u);
}

TEST_F(CaptureTest, APcapngFileIsReadFromAPipe) {
  auto const path = folder_.with("a.pcapng", pcapngFile(1, {{1'000'000, twoBytes}}));
  auto const fifo = folder_.file("pipe");
  ASSERT_EQ(run("mkfifo", {fifo}).status, 0);
  auto const outcome = run("sh", {"-c", "cat " + path + " > " + fifo + " & exec " JPAGENT " replay " + fifo});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out.rfind("frames                                    1\n", 0), 0u) << outcome.out;
}

TEST_F(CaptureTest, AFileWithoutFramesIsNoError) {
  EXPECT_EQ(shown(writeCapture(folder_, DLT_EN10MB, {})), "");
}

TEST_F(CaptureTest, WhatIsNoCaptureIsNamedInOneLine) {
  struct {
    std::string path, message;
  } const rows[] = {
      {folder_.file("missing"), "No such file or directory"},
      {folder_.with("empty", {}), "the file is empty"},
      {folder_.with("short", Bytes(3)),
       "not a capture: truncated dump file; tried to read 4 file header bytes, only got 3"},
      {folder_.with("garbage", Bytes(100, 'x')), "not a capture: unknown file format"},
      {folder_.file(""), "Is a directory"},
  };
  for (auto const& row : rows) EXPECT_EQ(shown(row.path), row.path + ": " + row.message);
}

TEST_F(CaptureTest, AFileThatEndsInAFrameShowsWhatCameBefore) {
  auto bytes = readBytes(writeCapture(folder_, DLT_EN10MB, {{0, twoBytes}, {1, twoBytes}}));
  struct {
    std::size_t cut;
    std::string message;
  } const rows[] = {
      {1, "truncated dump file; tried to read 2 captured bytes, only got 1"},
      {5, "truncated dump file; tried to read 16 header bytes, only got 13"},
  };
  for (auto const& row : rows) {
    Bytes const cut(bytes.begin(), bytes.end() - static_cast<std::ptrdiff_t>(row.cut));
    auto const path = folder_.with("cut", cut);
    EXPECT_EQ(shown(path), "1 0.000000 ethernet 2 bytes; " + path + ": after frame 1: " + row.message);
  }
}

TEST_F(CaptureTest, WhatTheWriterWritesIsReadAgain) {
  auto const path = folder_.file("written.pcap");
  CaptureWriter writer(path);
  writer.frameAdd(1'000'000, twoBytes);
  writer.frameAdd(2'250'000, Bytes(60));
  writer.close();
  EXPECT_EQ(shown(path), "1 0.000000 ethernet 2 bytes; 2 1.250000 ethernet 60 bytes");
}

TEST_F(CaptureTest, WhatTheWriterWritesIsWhatLibpcapWouldWrite) {
  auto const path = folder_.file("written.pcap");
  CaptureWriter writer(path);
  std::vector<TimedFrame> const frames = {{1'000'007, twoBytes}, {1'700'000'000'999'999, Bytes(60, 7)}};
  for (auto const& frame : frames) writer.frameAdd(frame.microseconds, frame.bytes);
  writer.close();
  EXPECT_EQ(readBytes(path), readBytes(writeCapture(folder_, DLT_EN10MB, frames)));
}

TEST_F(CaptureTest, AFileThatCannotBeWrittenIsNamed) {
  try {
    CaptureWriter writer(folder_.file("no/such/folder"));
    FAIL() << "written";
  } catch (OutputError const& e) {
    EXPECT_EQ(e.what(), folder_.file("no/such/folder") + ": No such file or directory");
  }
}

TEST_F(CaptureTest, AFullDiskIsNoticed) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  CaptureWriter writer("/dev/full");
  for (int i = 0; i < 100; ++i) writer.frameAdd(0, Bytes(1000));
  try {
    writer.close();
    FAIL() << "closed";
  } catch (OutputError const& e) {
    EXPECT_STREQ(e.what(), "/dev/full: No space left on device");
  }
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
