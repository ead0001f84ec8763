// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "runtime/vel/Exception.h"

namespace Vel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Something that notices when it is formatted.
struct Probe {
  mutable int formatted = 0;
  friend std::ostream& operator<<(std::ostream& os, Probe const& probe) {
    return os << "probe " << ++probe.formatted;
  }
};

class TraceTest : public testing::Test {
 protected:
  TraceTest() { traceSinkIs(noting()); }
  ~TraceTest() override {
    traceSinkIs(nullptr);
    coverageStreamIs(nullptr);
    handle.levelsDel();
  }

  TraceSink noting() {
    return [this](TraceLine const& line) { lines.push_back(std::to_string(line.level) + " " + line.text); };
  }
  std::vector<std::string> taken() { return std::exchange(lines, {}); }

  TraceHandle& handle = TraceHandle::find("Test::Trace");
  std::vector<std::string> lines;
};

TEST_F(TraceTest, AHandleIsFoundByItsNameAndIsOff) {
  EXPECT_EQ(&TraceHandle::find("Test::Trace"), &handle);
  EXPECT_NE(&TraceHandle::find("Test::Other"), &handle);
  EXPECT_EQ(handle.name(), "Test::Trace");
  for (U32 level = 0; level <= 30; ++level) {
    EXPECT_FALSE(handle.level(level)) << level;
    EXPECT_FALSE(handle.wanted(level)) << level;
  }
}

TEST_F(TraceTest, OnlyTheFramesOwnHandleHasALevelOnFromTheStart) {
  EXPECT_EQ(&TraceHandle::find("Vel"), &frameTrace());
  EXPECT_TRUE(frameTrace().level(1));
  for (U32 level = 2; level <= 30; ++level) EXPECT_FALSE(frameTrace().level(level)) << level;
}

TEST_F(TraceTest, ALineThatIsOffFormatsNothing) {
  Probe probe;
  int evaluated = 0;
  handle.levelIs(8, true);
  VEL_TRACE(handle, 7, "Source", "function", probe << ++evaluated);
  EXPECT_EQ(probe.formatted, 0);
  EXPECT_EQ(evaluated, 0);
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(TraceTest, LevelsAreSwitchedOneByOne) {
  auto const traceAll = [this] {
    for (U32 level : {0u, 1u, 7u, 8u, 30u}) VEL_TRACE(handle, level, "Source", "function", "line");
  };
  handle.levelIs(7, true);
  traceAll();
  EXPECT_THAT(taken(), ElementsAre("7 line"));
  handle.levelIs(30, true);
  handle.levelIs(0, true);
  traceAll();
  EXPECT_THAT(taken(), ElementsAre("0 line", "7 line", "30 line"));
  handle.levelIs(7, false);
  traceAll();
  EXPECT_THAT(taken(), ElementsAre("0 line", "30 line"));
  handle.levelsDel();
  traceAll();
  EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(TraceTest, ALevelBeyondTheLastIsRefused) {
  for (U32 const level : {31u, 32u, 4294967295u}) {
    EXPECT_THROW(handle.levelIs(level, true), InvalidArgumentException) << level;
    EXPECT_FALSE(handle.level(level)) << level;
  }
  EXPECT_FALSE(handle.wanted(7));
}

TEST_F(TraceTest, ALineOfALevelBeyondTheLastIsWantedByTheCoverageStreamAlone) {
  for (U32 level = 0; level <= 30; ++level) handle.levelIs(level, true);
  for (U32 const level : {31u, 32u, 33u, 4294967295u}) EXPECT_FALSE(handle.wanted(level)) << level;
  std::ostringstream coverage;
  coverageStreamIs(&coverage);
  for (U32 const level : {31u, 32u, 33u, 4294967295u}) EXPECT_TRUE(handle.wanted(level)) << level;
  VEL_TRACE(handle, 32, "Source", "function", "line");
  coverageStreamIs(nullptr);
  EXPECT_EQ(coverage.str(), "line\n");
  EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(TraceTest, HandlesAreSwitchedApart) {
  TraceHandle& other = TraceHandle::find("Test::Other");
  handle.levelIs(7, true);
  VEL_TRACE(other, 7, "Source", "function", "other");
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(TraceTest, ALineCarriesWhereItComesFrom) {
  std::vector<std::string> parts;
  int line = 0;
  traceSinkIs([&](TraceLine const& l) {
    parts = {std::string(l.handle),
             std::string(l.context),
             std::string(l.source),
             std::string(l.function),
             std::to_string(l.level),
             l.enabled ? "enabled" : "disabled",
             l.text};
    line = l.line;
  });
  handle.levelIs(4, true);
  int const here = __LINE__ + 1;
  VEL_TRACE(handle, 4, "JoinPruneSm", "handleNew", "text " << 5);
  EXPECT_THAT(parts,
              ElementsAre("Test::Trace", "<unknown>", "JoinPruneSm", "handleNew", "4", "enabled", "text 5"));
  EXPECT_EQ(line, here);
}

TEST_F(TraceTest, NumbersHaveTwelveDigits) {
  handle.levelIs(4, true);
  VEL_TRACE(handle, 4, "Source", "function", 0.1 << ' ' << 210.0 << ' ' << 1.0 / 3 << ' ' << 1234567.5);
  EXPECT_THAT(lines, ElementsAre("4 0.1 210 0.333333333333 1234567.5"));
}

TEST_F(TraceTest, TheCoverageStreamGetsWhatTheLevelsFilterOutAndNothingElse) {
  std::ostringstream coverage;
  coverageStreamIs(&coverage);
  Probe probe;
  handle.levelIs(7, true);
  VEL_TRACE(handle, 7, "Source", "function", "on " << probe);
  VEL_TRACE(handle, 8, "Source", "function", "off " << probe);
  EXPECT_THAT(lines, ElementsAre("7 on probe 1"));
  EXPECT_EQ(coverage.str(), "off probe 2\n");
  EXPECT_FALSE(handle.level(8));
  // A handle that is made while the stream is set takes part, and levels can still be switched.
  TraceHandle& late = TraceHandle::find("Test::Late");
  VEL_TRACE(late, 1, "Source", "function", "late");
  EXPECT_EQ(coverage.str(), "off probe 2\nlate\n");
  handle.levelsDel();
  VEL_TRACE(handle, 7, "Source", "function", "off now");
  EXPECT_EQ(coverage.str(), "off probe 2\nlate\noff now\n");
  coverageStreamIs(nullptr);
  VEL_TRACE(handle, 8, "Source", "function", "lost " << probe);
  VEL_TRACE(late, 1, "Source", "function", "lost " << probe);
  EXPECT_EQ(probe.formatted, 2);
  EXPECT_EQ(coverage.str(), "off probe 2\nlate\noff now\n");
}

TEST_F(TraceTest, WhatASinkThrowsIsSwallowed) {
  handle.levelIs(4, true);
  traceSinkIs([](TraceLine const&) { throw std::runtime_error("disk full"); });
  EXPECT_NO_THROW(VEL_TRACE(handle, 4, "Source", "function", "one"));
  traceSinkIs([](TraceLine const&) { throw 1; });
  EXPECT_NO_THROW(VEL_TRACE(handle, 4, "Source", "function", "two"));
}

TEST_F(TraceTest, ACoverageStreamThatThrowsIsSwallowedToo) {
  std::ostringstream coverage;
  coverage.exceptions(std::ios::badbit);
  coverage.setstate(std::ios::goodbit);
  coverageStreamIs(&coverage);
  try {
    coverage.setstate(std::ios::badbit);
  } catch (std::ios::failure const&) {
  }
  EXPECT_NO_THROW(VEL_TRACE(handle, 4, "Source", "function", "lost"));
}

TEST_F(TraceTest, ASinkMayReplaceItself) {
  handle.levelIs(4, true);
  std::string const owned = "a text that the first sink owns, too long to be held in place";
  traceSinkIs([this, owned](TraceLine const&) {
    traceSinkIs(noting());
    lines.push_back(owned);
  });
  VEL_TRACE(handle, 4, "Source", "function", "one");
  VEL_TRACE(handle, 4, "Source", "function", "two");
  EXPECT_THAT(lines, ElementsAre(owned, "4 two"));
}

TEST_F(TraceTest, ASinkMayTrace) {
  handle.levelIs(4, true);
  handle.levelIs(5, true);
  traceSinkIs([this](TraceLine const& line) {
    if (line.level == 4) VEL_TRACE(handle, 5, "Source", "sink", "about: " << line.text);
    noting()(line);
  });
  VEL_TRACE(handle, 4, "Source", "function", "one");
  EXPECT_THAT(lines, ElementsAre("5 about: one", "4 one"));
}

TEST_F(TraceTest, WithoutASinkLinesGoToStandardError) {
  traceSinkIs(nullptr);
  handle.levelIs(4, true);
  testing::internal::CaptureStderr();
  VEL_TRACE(handle, 4, "Source", "function", "seen " << 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Test::Trace[4] seen 1\n");
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(TraceTest, APieceThatThrowsTakesItsLineAlongAndNothingElse) {
  handle.levelIs(4, true);
  auto const piece = [](bool fails) { return fails ? throw std::bad_alloc() : "whole"; };
  EXPECT_NO_THROW(VEL_TRACE(handle, 4, "Source", "function", "first " << piece(true)));
  VEL_TRACE(handle, 4, "Source", "function", "second " << piece(false));
  EXPECT_THAT(lines, ElementsAre("4 second whole"));
}

TEST_F(TraceTest, ATraceIsOneStatement) {
  handle.levelIs(4, true);
  if (lines.empty())
    VEL_TRACE(handle, 4, "Source", "function", "then");
  else
    VEL_TRACE(handle, 4, "Source", "function", "else");
  EXPECT_THAT(lines, ElementsAre("4 then"));
}

}  // namespace
}  // namespace Vel
