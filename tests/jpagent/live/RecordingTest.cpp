// SPDX-License-Identifier: Apache-2.0
// Recordings of a live speaker and their performance.
#include <sys/wait.h>

#include <fstream>
#include <random>

#include "jpagent/live/Recording.h"
#include "tests/Thorough.h"
#include "tests/jpagent/Support.h"
#include "tests/jpagent/live/LiveScene.h"

namespace Routing::Pim::Jpagent::Live::Test {
namespace {

using Jpagent::Test::lines;
using Jpagent::Test::readText;
using Jpagent::Test::run;
using Jpagent::Test::TemporaryFolder;
using testing::HasSubstr;

// A session of random inputs, as a process has one: its own seeds, a file that is recorded and what is
// printed.
class Session final : public LiveOutside {
 public:
  Session(U32 seed, bool isJson, std::string const& record, std::string const& printed)
      : random_(seed), isJson_(isJson), record_(record), printed_(printed) {
    LiveSettings settings{.seed = random_(),
                          .hashSeed = random_(),
                          .randomSeed = static_cast<long>(random_()),
                          .microseconds = 1'795'327'200'123'456,
                          .json = isJson,
                          .record = [this](std::string_view line) { record_ << line << std::endl; }};
    seedProcess(settings);
    now_ = 0.1 * static_cast<double>(random_() % 1000);
    speaker_ = std::make_unique<LiveSpeaker>(now_, *this, std::move(settings));
  }

  void play(int inputs) {
    speaker_->interfaceGiven("eth0");
    speaker_->interfaceGiven("eth1");
    kernel("eth0");
    tell("interface eth0 hello-delay 0.3 interval 2 hello 3");
    for (int i = 0; i < inputs; ++i) {
      now_ += static_cast<double>(random_() % 1000) / 1777;
      while (speaker_->timeMin() <= now_) {
        speaker_->nowIs(std::max(speaker_->now(), speaker_->timeMin()));
        speaker_->expire();
      }
      speaker_->nowIs(now_);
      input();
    }
    speaker_->quit(false);
    while (!speaker_->isDone()) {
      speaker_->nowIs(speaker_->timeMin());
      speaker_->expire();
    }
  }

  // Sending takes time, and a system is not always ready.
  SendResult send(Speaker::Outgoing const&) override {
    double const now = speaker_->now() + static_cast<double>(random_() % 100) / 33333;
    switch (random_() % 12) {
      case 0:
        return {.sent = Speaker::Sent::later, .now = now, .reason = {}};
      case 1:
        return {.sent = Speaker::Sent::failed, .now = now, .reason = "Message too long"};
      case 2:
        throw std::runtime_error("the system says \"no\"");
      default:
        return {.sent = Speaker::Sent::done, .now = now, .reason = {}};
    }
  }
  void event(Event const& event) override { print(event); }

 private:
  void print(Event const& event) { printed_ << (isJson_ ? jsonLine(event) : textOf(event)) << std::endl; }

  template <class... One>
  std::string one(One... of) {
    std::string const all[] = {of...};
    return all[random_() % sizeof...(of)];
  }
  void tell(std::string const& line) {
    auto const asker = static_cast<Asker>(random_() % 4 % 3);
    auto const reply = speaker_->command(line, asker);
    if (reply && asker == Asker::standardInput) print(reply->event);
  }
  void kernel(std::string const& name) {
    KernelInterface kernel{
        .addresses = {}, .mtu = random_() % 2 ? 1500u : 576u, .isRunning = random_() % 5 != 0};
    int const interface = name == "eth0" ? 0 : 1;
    for (auto const& address :
         {fmt::format("10.0.{}.{}/24", interface, random_() % 8 ? 1 : 7),
          fmt::format("fe80::{}/64", random_() % 8 ? 1 : 7), std::string("10.7.0.1/24")})
      if (random_() % 6 != 0) kernel.addresses.push_back(*IpGenPrefix::fromText(address));
    speaker_->kernelInterfaceIs(name, kernel);
  }
  void command() {
    auto const group = fmt::format("239.1.1.{}", random_() % 20);
    auto const via = one("10.0.0.2", "10.0.0.3", "10.0.1.2", "10.7.0.2", "10.0.0.2%eth0");
    auto const route = one("(10.9.0.1," + group + ")", "(*," + group + ") rp 10.255.0.1",
                           "9 routes from (10.9.0.2," + group + ")");
    auto const rpt = "(10.9.0.1," + group + ",rpt)";
    tell(one("join " + route + " via " + via, "join " + route + " via " + via, "leave " + route,
             "prune " + rpt, "unprune " + rpt, "show upstream", "show downstream", "show neighbors",
             "show interfaces", "show counters",
             "interface eth0 " + one("up", "down", "hello 2", "interval 1", "tracking on"),
             "join (2001:db8::9,ff0e::1) via fe80::2%eth0", "jion \xff \"x\"  y", "# comment", "help",
             "events on"));
  }
  void packet() {
    bool const isIpv4 = random_() % 4 != 0;
    auto const name = one("eth0", "eth0", "eth1");
    int const interface = name == "eth0" ? 0 : 1;
    unsigned const host = 2 + static_cast<unsigned>(random_() % 3);
    IpGenAddr const source(isIpv4 ? fmt::format("10.0.{}.{}", interface, host)
                                  : fmt::format("fe80::{}", host));
    IpGenAddr const destination = Wire::allPimRouters(source.af());
    std::vector<U8> bytes;
    if (random_() % 2) {
      Wire::Hello hello;
      if (random_() % 2) hello.generationIdIs(random_() % 5 ? 7 : static_cast<U32>(random_()));
      if (random_() % 2) hello.lanPruneDelayIs(Wire::LanPruneDelay{});
      if (random_() % 8 == 0) hello.holdTimeIs(static_cast<U16>(random_() % 3));
      if (random_() % 4 == 0 && isIpv4) hello.addressAdd(IpGenAddr("10.7.0.2"));
      bytes = Wire::encodeHello(hello, source, destination);
    } else {
      Wire::JoinPrune message(
          IpGenAddr(isIpv4 ? fmt::format("10.0.{}.{}", interface, 1 + random_() % 3) : "fe80::1"),
          static_cast<U16>(1 + random_() % 20));
      message.groupAdd(IpGenAddr(isIpv4 ? fmt::format("239.1.1.{}", random_() % 20) : "ff0e::1"));
      for (int left = 3; left > 0; --left) {
        auto const kind = static_cast<EntryKind>(random_() % 6);
        message.entryAdd(kind,
                         IpGenAddr(isIpv4 ? fmt::format("10.9.0.{}", 1 + random_() % 3) : "2001:db8::9"));
      }
      bytes = Wire::encodeJoinPrune(message, source, destination);
    }
    if (random_() % 10 == 0) bytes.resize(random_() % bytes.size());
    speaker_->receive(
        {.intf = name, .source = source, .destination = destination, .ttl = random_() % 20 ? 1u : 2u}, bytes);
  }
  void input() {
    switch (random_() % 12) {
      case 0:
        return kernel(one("eth0", "eth1"));
      case 1:
        switch (random_() % 8) {
          case 0:
            return speaker_->kernelInterfaceDel("eth1");
          case 1:
            return speaker_->policyIs({"239.1.0.0/16=10.255.0.1"}, {"239.1.1.3"});
          case 2:
            return speaker_->error("--pcap\nfile", "No space left on device");
          case 3:
            return speaker_->counterIs("drops of eth0", random_());
          case 4: {
            auto const reply = speaker_->refuseCommand("long\x01", "too long");
            return print(reply.event);
          }
          case 5:
            speaker_->receiveIpv4("eth0", std::vector<U8>(random_() % 30, 0x45));
            return;
          case 6:
            return speaker_->interfaceTaken("eth1");
          default:
            return speaker_->interfaceGiven("eth1");
        }
      case 2:
      case 3:
      case 4:
      case 5:
        return command();
      default:
        return packet();
    }
  }

  std::mt19937 random_;
  bool const isJson_;
  std::ofstream record_, printed_;
  Seconds now_ = 0;
  std::unique_ptr<LiveSpeaker> speaker_;
};

// In a process of its own, which has no hash table yet; `isKilled` ends it without its end.
void record(U32 seed, bool isJson, std::string const& record, std::string const& printed, int inputs,
            bool isKilled = false) {
  pid_t const child = fork();
  if (child == 0) {
    Session session(seed, isJson, record, printed);
    session.play(inputs);
    if (isKilled) kill(getpid(), SIGKILL);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(isKilled ? WIFSIGNALED(status) : WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(RecordingTest, ARandomSessionIsPerformedAgainWithTheSameOutputToTheByte) {
  TemporaryFolder const folder;
  auto const recorded = folder.file("recorded"), printed = folder.file("printed");
  for (U32 seed = 1; seed <= (thorough() ? 60u : 3u); ++seed) {
    SCOPED_TRACE(seed);
    bool const isJson = seed % 3 != 0;
    record(seed, isJson, recorded, printed, thorough() ? 1500 : 700);
    auto const output = readText(printed);
    ASSERT_GT(lines(output).size(), 500u);
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
  record(7, true, recorded, printed, 300, true);
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
  for (int i = 0; i < 250; ++i) text += "at 10 command leave 1000000 routes from (10.9.0.1,233.0.0.1)\n";
  TemporaryFolder const folder;
  auto const file = folder.file("recorded");
  std::ofstream(file) << text;
  auto const performed = run(JPAGENT, {"simulate", file});
  EXPECT_EQ(performed.status, 2);
  EXPECT_THAT(performed.err, HasSubstr("more than 200000000 routes have been looked at as a whole"));
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
  speaker_->receiveIpv4("eth0", {});
  speaker_->quit(true);
  EXPECT_THAT(record_, testing::ElementsAre(
                           "at 1004.001 packet eth0 from 10.0.0.2 to 224.0.0.13 ttl 1 2000dffb000100020001",
                           "at 1004.251 command show  neighbors", "at 1004.251 ipv4 eth0 -",
                           "at 1004.251 quit now", "sent done 1004.251"));
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live::Test
