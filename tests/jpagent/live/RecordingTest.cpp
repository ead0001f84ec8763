// SPDX-License-Identifier: Apache-2.0
// Recordings of a live speaker and their performance.
#include <sys/wait.h>

#include <fstream>
#include <random>

#include "jpagent/live/Recording.h"
#include "tests/Thorough.h"
#include "tests/jpagent/Support.h"
#include "tests/jpagent/live/ChosenRun.h"
#include "tests/jpagent/live/LiveScene.h"

namespace Routing::Pim::Jpagent::Live::Test {
namespace {

using Jpagent::Test::lines;
using Jpagent::Test::readText;
using Jpagent::Test::run;
using Jpagent::Test::TemporaryFolder;
using testing::HasSubstr;

// In a process of its own, which has no hash table yet; `isKilled` ends it without its end.
void record(U32 seed, bool isJson, std::string const& record, std::string const& printed, int inputs,
            bool isKilled = false) {
  pid_t const child = fork();
  if (child == 0) {
    std::mt19937 random(seed);
    std::ofstream recorded(record), output(printed);
    ChosenRun run([&random](U32 bound) { return static_cast<U32>(random() % bound); }, isJson, recorded,
                  output);
    run.play([left = inputs]() mutable { return left-- > 0; });
    if (isKilled) kill(getpid(), SIGKILL);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(isKilled ? WIFSIGNALED(status) : WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(RecordingTest, ARandomRunIsPerformedAgainWithTheSameOutputToTheByte) {
  TemporaryFolder const folder;
  auto const recorded = folder.file("recorded"), printed = folder.file("printed");
  for (U32 seed = thorough() ? 1 : 2; seed <= (thorough() ? 60u : 3u); ++seed) {
    SCOPED_TRACE(seed);
    bool const isJson = seed % 3 != 0;
    record(seed, isJson, recorded, printed, thorough() ? 1500 : 500);
    auto const output = readText(printed);
    ASSERT_GT(lines(output).size(), 300u);
    auto const performed = run(JPAGENT, {"simulate", recorded});
    EXPECT_EQ(performed.status, 0) << performed.err;
    ASSERT_TRUE(performed.out == output)
        << "at "
        << std::mismatch(output.begin(), output.end(), performed.out.begin(), performed.out.end()).first -
               output.begin();
    for (auto const& line : lines(isJson ? output : "")) schemaLineIs(line);
  }
}

TEST(RecordingTest, WhatIsLeftOfAKilledProcessIsPerformedUpToItsLastInput) {
  TemporaryFolder const folder;
  auto const recorded = folder.file("recorded"), printed = folder.file("printed");
  record(7, true, recorded, printed, 150, true);
  auto const text = readText(recorded);
  // Wherever it is cut, what was printed until then comes out.
  auto const output = readText(printed);
  for (std::size_t const size : {text.size(), text.size() / 2, text.size() / 3, text.size() - 1}) {
    SCOPED_TRACE(size);
    std::ofstream(recorded, std::ios::binary) << text.substr(0, size);
    auto const performed = run(JPAGENT, {"simulate", recorded});
    EXPECT_EQ(performed.status, 0) << performed.err;
    // The results of sending that are missing in the end are taken as done.
    auto const all = lines(output), some = lines(performed.out);
    ASSERT_GT(some.size(), 10u);
    for (std::size_t i = 0; i + 40 < some.size(); ++i) ASSERT_EQ(some[i], all.at(i)) << i;
  }
}

TEST(RecordingTest, WhatCameOutCanBeExpectedUnderARule) {
  TemporaryFolder const folder;
  auto const recorded = folder.file("recorded"), printed = folder.file("printed");
  record(8, true, recorded, printed, 200);
  EXPECT_EQ(run(JPAGENT, {"simulate", "--rewrite", recorded}).status, 0);
  EXPECT_TRUE(readText(recorded).ends_with("\n----\n" + readText(printed)));
  EXPECT_EQ(run(JPAGENT, {"simulate", "--check", recorded}).status, 0);
  std::ofstream(recorded, std::ios::app) << "something else\n";
  EXPECT_EQ(run(JPAGENT, {"simulate", "--check", recorded}).status, 1);
}

TEST(RecordingTest, ThePacketsOfAPerformanceAreForACaptureWithTheTimesOfThen) {
  TemporaryFolder const folder;
  auto const recorded = folder.file("recorded"), capture = folder.file("sent.pcap");
  record(9, true, recorded, folder.file("printed"), 200);
  EXPECT_EQ(run(JPAGENT, {"simulate", "--pcap", capture, recorded}).status, 0);
  auto const replayed = run(JPAGENT, {"replay", "--json", capture});
  EXPECT_THAT(replayed.out, HasSubstr("\"join\""));
}

TEST(RecordingTest, ALineThatIsNoneOfARecordingIsRefusedWithItsNumber) {
  std::string const head = "# S.\nlive seed 1 hash 2 random 3 clock 10 time 1795327200000000 json\n";
  struct {
    char const *text, *complaint;
  } const cases[] = {
      {"live seed 1 hash 2 random 3 clock 10 time 1 text\n",
       ":3: expected \"live\" as the first command only"},
      {"speaker\n", ":3: expected a command, not \"speaker\""},
      {"at x expire\n", ":3: expected seconds from 0 to 300000000, not \"x\""},
      {"at 10 nothing\n", ":3: expected an input, not \"nothing\""},
      {"at 10 packet eth0 from 10.0.0.2 to 224.0.0.13 ttl 1 2g\n",
       ":3: expected bytes in hexadecimal digits, or - for none, not \"2g\""},
      {"at 10 packet eth0 from 10.0.0.2 to 224.0.0.13 ttl 1\n",
       ":3: expected bytes in hexadecimal digits, or - for none at the end of the line"},
      {"at 10 policy rp x\n", ":3: \"x\" is not GROUP/LEN=ADDRESS"},
      {"at 10 given a/b\n", ":3: \"a/b\" cannot be the name of an interface"},
      {"sent done 11\n", ":3: expected an input: nothing was sent before this line"},
      {"at 10 given eth0\nat 10 kernel eth0 mtu 1500 running 10.0.0.1/24\nat 20 expire\nat 20 command help\n",
       ":6: expected what became of a packet, \"sent ...\""},
      {"at 10 refuse printer 00 00\n", ":3: expected who has asked, not \"printer\""},
  };
  TemporaryFolder const folder;
  auto const file = folder.file("recorded");
  for (auto const& [text, complaint] : cases) {
    std::ofstream(file) << head << text;
    auto const performed = run(JPAGENT, {"simulate", file});
    EXPECT_EQ(performed.status, 2) << text;
    EXPECT_THAT(performed.err, HasSubstr(complaint)) << text;
  }
  std::ofstream(file) << "# S.\nlive seed 1\n";
  EXPECT_THAT(run(JPAGENT, {"simulate", file}).err,
              HasSubstr(":2: expected \"hash\" at the end of the line"));
}

TEST(RecordingTest, ItsSeedOfDrand48HasAll32Bits) {
  TemporaryFolder const folder;
  auto const file = folder.file("recorded");
  auto const statusOf = [&file](std::string const& random) {
    std::ofstream(file) << "# S.\nlive seed 1 hash 2 random " << random
                        << " clock 10 time 1795327200000000 json\nat 10 given eth0\n";
    return run(JPAGENT, {"simulate", file}).status;
  };
  EXPECT_EQ(statusOf("4294967295"), 0);
  EXPECT_EQ(statusOf("4294967296"), 2);
}

TEST(RecordingTest, WhatARecordingMakesTheSpeakerDoHasALimit) {
  std::string text = "# S.\nlive seed 1 hash 2 random 3 clock 10 time 1795327200000000 json\n";
  for (int i = 0; i < 25; ++i) text += "at 10 command leave 1000000 routes from (10.9.0.1,233.0.0.1)\n";
  TemporaryFolder const folder;
  auto const file = folder.file("recorded");
  std::ofstream(file) << text;
  auto const performed = run(JPAGENT, {"simulate", file});
  EXPECT_EQ(performed.status, 2);
  EXPECT_THAT(performed.err, HasSubstr("more than 200000000 routes have been looked at as a whole"));
}

TEST(RecordingTest, WhatIsWantedInARecordingHasALimit) {
  if (!thorough()) GTEST_SKIP() << "left to scripts/prove";
  TemporaryFolder const folder;
  auto const file = folder.file("recorded");
  std::ofstream(file)
      << "# S.\nlive seed 1 hash 2 random 3 clock 10 time 1795327200000000 json\nat 10 given eth0\n"
         "at 10 command join 1000000 routes from (10.9.0.1,233.0.0.0) via 10.0.0.2\n"
         "at 10 command join 1000000 routes from (10.9.0.2,233.0.0.0) via 10.0.0.2\n"
         "at 10 command join (10.9.0.3,233.0.0.0) via 10.0.0.2\n";
  auto const performed = run(JPAGENT, {"simulate", file});
  EXPECT_EQ(performed.status, 2);
  EXPECT_THAT(performed.err, HasSubstr(":6: expected at most 2000000 routes that are wanted at a time"));
}

using RecordingSceneTest = LiveScene;

TEST_F(RecordingSceneTest, EachInputIsALineBeforeItHasAnEffectAndWhatHasNoneIsNotRecorded) {
  interface();
  pass(3);
  hello("10.0.0.2");
  pass(1);
  record_.clear();
  hello("10.0.0.2", {.hold = 1});
  pass(0.25);
  command("# nothing");
  command("");
  speaker_->expire();
  speaker_->nowIs(now_ - 1);
  command(" show  neighbors ");
  speaker_->quit(true);
  EXPECT_THAT(record_,
              testing::ElementsAre(
                  "at 1004.001 packet eth0 from 10.0.0.2 to 224.0.0.13 ttl 1 2000dffb000100020001",
                  "at 1004.251 command show  neighbors", "at 1004.251 quit now", "sent done 1004.251"));
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live::Test
