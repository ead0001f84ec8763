// Capture files, made by libpcap or by hand, good and bad.
#include "agent/Capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/Support.h"

namespace Routing::Pim::Agent {
namespace {

using namespace Test;

std::string const linkNames[] = {"ethernet", "raw", "cooked", "cooked2"};

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
                    {DLT_IPV6, "raw"},        {DLT_LINUX_SLL, "cooked"}, {DLT_LINUX_SLL2, "cooked2"}};
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

TEST_F(CaptureTest, AFileThatCannotBeWrittenIsNamed) {
  try {
    CaptureWriter writer(folder_.file("no/such/folder"));
    FAIL() << "written";
  } catch (CaptureError const& e) {
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
  } catch (CaptureError const& e) {
    EXPECT_STREQ(e.what(), "/dev/full: No space left on device");
  }
}

}  // namespace
}  // namespace Routing::Pim::Agent
