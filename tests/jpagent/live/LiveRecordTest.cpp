// SPDX-License-Identifier: Apache-2.0
// A recording of random live traffic performs what was printed.
#include <cstdlib>
#include <fstream>
#include <random>

#include "tests/Thorough.h"
#include "tests/jpagent/live/Cable.h"
#include "tests/jpagent/live/Worker.h"

namespace Routing::Pim::Jpagent::Live {
namespace {

// Random numbers, and what is made of them.
class Chance {
 public:
  explicit Chance(unsigned seed) : random_(seed) {}
  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
  template <class Value>
  Value oneOf(std::vector<Value> const& values) {
    return values[below(static_cast<unsigned>(values.size()))];
  }
  std::string group() { return "239.1.1." + std::to_string(below(12)); }
  std::string route() {
    auto const source = "(10.9.0." + std::to_string(1 + below(3)) + "," + group();
    return oneOf<std::string>({source + ")", source + ")", "(*," + group() + ")", source + ",rpt)"});
  }

 private:
  std::mt19937 random_;
};

void add(Bytes& bytes, std::initializer_list<unsigned> more) {
  for (auto const byte : more) bytes.push_back(static_cast<std::uint8_t>(byte));
}

Bytes randomHello(Chance& chance) {
  Bytes hello = {0x20, 0, 0, 0};
  if (chance.below(8) != 0) add(hello, {0, 1, 0, 2, 0, chance.oneOf<unsigned>({0, 1, 3, 105})});
  if (chance.below(2) == 0) add(hello, {0, 2, 0, 4, chance.below(2) * 128, chance.below(200), 1, 244});
  if (chance.below(2) == 0) add(hello, {0, 19, 0, 4, 0, 0, 0, chance.below(3)});
  if (chance.below(4) != 0) add(hello, {0, 20, 0, 4, 0, 0, 0, chance.below(3) / 2});
  return hello;
}

Bytes randomJoinPrune(Chance& chance) {
  Bytes message = {0x23, 0, 0, 0, 1, 0, 10, 0, 0};
  add(message, {chance.oneOf<unsigned>({1, 1, 1, 2, 7}), 0});
  unsigned const groups = 1 + chance.below(3);
  add(message, {groups, 0, chance.oneOf<unsigned>({1, 2, 30, 210})});
  for (unsigned i = 0; i < groups; ++i) {
    unsigned const joins = chance.below(3), prunes = chance.below(3);
    add(message, {1, 0, 0, 32, 239, 1, 1, chance.below(12), 0, joins, 0, prunes});
    for (unsigned j = 0; j < joins + prunes; ++j) {
      auto const flags = chance.oneOf<unsigned>({4, 5, 7});
      if (flags == 7)
        add(message, {1, 0, flags, 32, 10, 255, 0, 1 + chance.below(2)});
      else
        add(message, {1, 0, flags, 32, 10, 9, 0, 1 + chance.below(3)});
    }
  }
  return message;
}

// A neighbor, until it is killed: what it sends is broken now and then.
void sendAnything(unsigned seed) {
  Chance chance(seed);
  RawPim const out("vb");
  for (;;) {
    auto message = chance.below(4) == 0 ? randomHello(chance) : randomJoinPrune(chance);
    bool const isJunk = chance.below(10) == 0;
    for (unsigned i = 0; isJunk && i < 3; ++i)
      message[chance.below(static_cast<unsigned>(message.size()))] =
          static_cast<std::uint8_t>(chance.below(256));
    if (isJunk && chance.below(3) == 0)
      message.resize(1 + chance.below(static_cast<unsigned>(message.size())));
    if (message.size() >= 4 && chance.below(20) != 0) checksumIs(message);
    out.send(message);
    if (chance.below(3) == 0) pause(chance.below(30) * 0.001);
  }
}

std::string randomCommand(Chance& chance) {
  auto const seconds = [&] { return chance.oneOf<std::string>({"0.3", "1", "2.5", "10"}); };
  auto const via = " via 10.0.0." + std::to_string(2 + chance.below(2));
  auto const route = chance.route();
  bool const isRpt = route.find("rpt") != route.npos;
  switch (chance.below(10)) {
    case 0:
    case 1:
    case 2:
      return isRpt ? "prune " + route : "join " + route + (route[1] == '*' ? " rp 10.255.0.1" : "") + via;
    case 3:
    case 4:
      return (isRpt ? "unprune " : "leave ") + route;
    case 5:
      return chance.oneOf<std::string>({"join ", "leave "}) + std::to_string(1 + chance.below(300)) +
             " routes from (10.9.0.1,239.2.0.0)" + via;
    case 6:
      return "interface va " +
             chance.oneOf<std::string>(
                 {"hello ", "interval ", "hold ", "hello-hold ", "override ", "hello-delay "}) +
             seconds() + " priority " + std::to_string(chance.below(4));
    case 7:
      return "interface va " +
             chance.oneOf<std::string>({"down", "up", "up", "defaults hello 1 hello-delay 0.1", "tracking on",
                                        "neighbors 1", "routes 5"});
    case 8:
      return "show " +
             chance.oneOf<std::string>({"neighbors", "interfaces", "upstream", "downstream", "counters"});
    default:
      return "jion " + route;
  }
}

// How long the traffic lasts, in seconds: scripts/prove says ten minutes.
int trafficSeconds() {
  if (char const* const text = std::getenv("JOINPRUNE_RECORD_SECONDS")) return std::stoi(text);
  return thorough() ? 60 : 1;
}

TEST(LiveRecordTest, ARecordingOfRandomTrafficPerformsToTheSameLines) {
  REQUIRE_NAMESPACES();
  unsigned const seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Chance chance(seed);
  Cable lab;
  lab.agentsAre("10\\.0\\.0\\.[18]");
  QuickAgent one(lab, "one", "va", {"--record", lab.path("record")});
  QuickAgent two(lab, "two", "vb");
  lab.in("two", "ip address add 10.0.0.3/24 dev vb");
  one.await(neighborUp("10.0.0.2"));
  auto const isEnough = [&one] {
    return one.count({{"event", "received"}}) > 10 && one.count({{"event", "refused"}}) > 0 &&
           one.count({{"event", "reply"}}) > 20;
  };
  {
    Worker const neighbor(lab, "two", [seed] { sendAnything(seed); });
    // Where the link was down for most of the time, until enough has come in.
    auto const begin = std::chrono::steady_clock::now();
    auto const lasts = [&](int seconds) {
      return std::chrono::steady_clock::now() < begin + std::chrono::seconds(seconds);
    };
    while (lasts(trafficSeconds()) || (!isEnough() && lasts(trafficSeconds() + 60))) {
      for (unsigned i = chance.below(5); i > 0; --i) one.say(randomCommand(chance));
      if (chance.below(4) == 0) two.say("join " + chance.group().insert(0, "(10.9.0.1,") + ") via 10.0.0.1");
      if (chance.below(12) == 0) {
        // Also what is not there yet, or is already.
        lab.in("one", chance.oneOf<std::string>(
                          {"ip link set va down", "ip link set va up", "ip link set va up",
                           "ip address add 10.0.0.8/24 dev va || true", "ip address flush dev va",
                           "ip address add 10.0.0.1/24 dev va || true", "ip link set va mtu 1400"}));
      }
      one.eventCount();  // reads
      pause(chance.below(60) * 0.001);
    }
  }
  EXPECT_EQ(one.end(), 0);
  EXPECT_TRUE(isEnough());
  auto const again = shell(JPAGENT " simulate " + lab.path("record") + " >" + lab.path("again"));
  EXPECT_EQ(again.status, 0) << again.output;
  std::ofstream(lab.path("seen")) << one.text();
  auto const difference = shell("cmp " + lab.path("seen") + " " + lab.path("again"));
  EXPECT_EQ(difference.status, 0) << difference.output;
  EXPECT_EQ(one.other(), "");
  if (HasFailure()) {
    auto const kept = testing::TempDir() + "live-recording.txt";
    std::filesystem::copy_file(lab.path("record"), kept, std::filesystem::copy_options::overwrite_existing);
    ADD_FAILURE() << "the recording is kept: " << kept;
  }
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
