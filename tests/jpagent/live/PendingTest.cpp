// SPDX-License-Identifier: Apache-2.0
// jpagent/live/Pending.h: bytes on their way in and out of descriptors.
#include "jpagent/live/Pending.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace Routing::Pim::Jpagent::Live {
namespace {

using testing::ElementsAre;

struct Taken {
  std::vector<std::string> lines;
  Lines::Line const take = [this](std::string_view line, bool isWhole) {
    lines.push_back(std::string(line.substr(0, 10)) + (isWhole ? "" : "..."));
  };
};

TEST(LinesTest, BytesComeInPartsAndLinesWhole) {
  Taken taken;
  Lines lines;
  for (char const* const part : {"o", "ne\n", "two\r\nthr", "ee\n\nfour"}) lines.add(part, taken.take);
  EXPECT_THAT(taken.lines, ElementsAre("one", "two", "three", ""));
  EXPECT_EQ(lines.rest(), "four");
}

TEST(LinesTest, ALineThatIsTooLongIsToldOnceAndTheNextOneIsWhole) {
  Taken taken;
  Lines lines;
  std::string const longest(Lines::longest, 'x');
  lines.add(longest + "\n", taken.take);
  for (int i = 0; i < 5; ++i) lines.add(longest, taken.take);
  EXPECT_LE(lines.rest().size(), Lines::longest);
  lines.add("\nnext\n", taken.take);
  EXPECT_THAT(taken.lines, ElementsAre("xxxxxxxxxx", "xxxxxxxxxx...", "next"));
}

TEST(PendingTest, WhatADescriptorDoesNotTakeStaysInOrder) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);  // blocking: a write must not wait all the same
  Pending pending;
  std::string all;
  for (int i = 0; i < 100'000; ++i) all += std::to_string(i) + ' ';
  pending.add(all);
  std::string read;
  EXPECT_EQ(pending.writeTo(ends[1]), 0);
  EXPECT_GT(pending.size(), 0u);
  while (read.size() < all.size()) {
    char bytes[5000];
    auto const size = ::read(ends[0], bytes, sizeof bytes);
    ASSERT_GT(size, 0);
    read.append(bytes, static_cast<std::size_t>(size));
    ASSERT_EQ(pending.writeTo(ends[1]), 0);
  }
  EXPECT_EQ(read, all);
  EXPECT_EQ(pending.size(), 0u);
  close(ends[0]);
  pending.add("more");
  std::signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(pending.writeTo(ends[1]), EPIPE);
  close(ends[1]);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
