// SPDX-License-Identifier: Apache-2.0
// `jpagent run` under load, in network namespaces.
#include <sys/mman.h>

#include <atomic>
#include <fstream>
#include <set>

#include "tests/Thorough.h"
#include "tests/jpagent/live/Cable.h"
#include "tests/jpagent/live/Worker.h"

namespace Routing::Pim::Jpagent::Live {
namespace {

// KiB of a process that are in memory.
long residentOf(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  return 0;
}

// The routes that an agent has of its neighbors; for as long as there are fewer, it is asked again.
std::set<std::string> downstreamOf(Agent& agent, std::size_t expected, double patience) {
  auto const until = std::chrono::steady_clock::now() + std::chrono::duration<double>(patience);
  std::set<std::string> routes;
  do {
    routes.clear();
    auto const shown = agent.ask("show downstream");
    if (shown.is_null()) return routes;
    for (auto const& row : shown["result"]) routes.insert(row["route"]);
    if (routes.size() < expected) pause(0.2);
  } while (routes.size() < expected && std::chrono::steady_clock::now() < until);
  return routes;
}

// A counter, or the sum of those whose names begin so.
long counter(Agent& agent, std::string const& name) {
  long sum = 0;
  auto const shown = agent.ask("show counters");
  for (auto const& row : shown.is_null() ? Json::array() : shown["result"])
    if (row["name"].get<std::string>().starts_with(name)) sum += row["value"].get<long>();
  return sum;
}

std::string joinRange(std::size_t count, std::string const& first, std::string const& via) {
  return "join " + std::to_string(count) + " routes from (10.9.0.1," + first + ") via " + via;
}

// Messages of which each is refused for a reason of its own.
std::vector<Bytes> junkMessages() {
  Bytes badGroup = {0x23, 0, 0, 0, 1, 0, 10, 0, 0, 1, 0, 1, 0, 210, 1, 0, 0, 32, 10, 1, 1, 1, 0, 0, 0, 0};
  Bytes cut = {0x23, 0, 0, 0, 1, 0, 10, 0, 0, 1, 0, 9, 0, 210};
  Bytes badHello = {0x20, 0, 0, 0, 0, 1, 0, 3, 1, 2, 3};
  for (auto* const message : {&badGroup, &cut, &badHello}) checksumIs(*message);
  Bytes badChecksum = badGroup;
  badChecksum[2] ^= 1;
  return {badGroup, cut, badHello, badChecksum};
}

// So many packets a second in equal parts of a millisecond; ends the process when it sends less than half.
void sendJunk(std::string const& intf, int perSecond, double seconds) {
  RawPim const out(intf);
  auto const messages = junkMessages();
  using Clock = std::chrono::steady_clock;
  auto const begin = Clock::now();
  auto const passed = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
  long sent = 0;
  for (double now = 0; now < seconds; now = passed()) {
    for (long const due = static_cast<long>(now * perSecond); sent < due; ++sent)
      out.send(messages[static_cast<std::size_t>(sent) % messages.size()]);
    pause(0.001);
  }
  if (static_cast<double>(sent) < perSecond * seconds / 2) _exit(3);
}

// Refused messages as events tell them.
struct Refusals {
  explicit Refusals(std::vector<Json> const& events) {
    for (auto const& event : events) {
      if (event["event"] != "refused") continue;
      auto const reason = event["reason"].get<std::string>();
      ++told[reason.substr(0, reason.find(" ("))][event["time"].get<std::string>().substr(0, 19)];
      sum += 1 + event.value("left_out", 0l);
    }
  }
  std::map<std::string, std::map<std::string, int>> told;  // reason, second, how often
  long sum = 0;
};

void loseNothingToJunk(double seconds, std::vector<int> const& rates, std::size_t routes) {
  Cable const lab;
  // A capture of it all would be large.
  Agent one(lab, "one", {"va"}), two(lab, "two", {"vb"});
  one.say("interface va" + quick + " interval 1 hold 60 hello-hold 60");
  two.say("interface vb" + quick + " interval 1 hold 60 hello-hold 60");
  one.await(neighborUp("10.0.0.2"));
  two.await(neighborUp("10.0.0.1"));
  // Everything that grows with the routes is there before memory is looked at.
  EXPECT_TRUE(two.ask(joinRange(routes, "239.9.0.0", "10.0.0.1"))["ok"]);
  EXPECT_EQ(downstreamOf(one, routes, 5).size(), routes);
  long resident = 0;
  std::size_t joined = 0;
  for (int const rate : rates) {
    Worker junk(lab, "two", [&] { sendJunk("vb", rate, seconds / static_cast<double>(rates.size())); });
    for (double at = 0; at < seconds / static_cast<double>(rates.size()); at += 0.5) {
      auto const third = std::to_string(joined++);
      EXPECT_TRUE(two.ask(joinRange(10, "239.1." + third + ".0", "10.0.0.1"))["ok"]);
      one.count({});  // reads
      if (resident == 0 && at >= 0.5) resident = residentOf(one.process().id());
      pause(0.5);
    }
    EXPECT_EQ(junk.wait(), 0) << "it did not send " << rate << " a second";
  }
  EXPECT_LT(residentOf(one.process().id()), resident + (4 << 10)) << "KiB";
  EXPECT_EQ(downstreamOf(one, routes + joined * 10, 3).size(), routes + joined * 10);
  EXPECT_EQ(one.count({{"event", "downstream"}, {"state", "expired"}}), 0);
  EXPECT_EQ(one.count({{"event", "neighbor"}}), 1);  // up, and nothing since
  EXPECT_EQ(two.count({{"event", "neighbor"}}), 1);
  // What was left out is told with the next of its kind.
  pause(1.2);
  EXPECT_EQ(Worker(lab, "two",
                   [] {
                     RawPim const out("vb");
                     for (auto const& message : junkMessages()) out.send(message);
                   })
                .wait(),
            0);
  pause(0.3);
  auto const refused = counter(one, "refused: ");
  Refusals const refusals(one.events());
  EXPECT_EQ(refusals.told.size(), 4u);
  for (auto const& [reason, seconds_] : refusals.told)
    for (auto const& [second, count] : seconds_) EXPECT_LE(count, 20) << reason << " at " << second;
  // In a second of the clock there may be parts of two of the limit's; over all of them it is ten for each.
  for (auto const& [reason, seconds_] : refusals.told) {
    int all = 0;
    for (auto const& [second, count] : seconds_) all += count;
    EXPECT_LE(all, 10 * (seconds + 6)) << reason;
    EXPECT_GE(all, 10) << reason;
  }
  EXPECT_EQ(refusals.sum, refused);
  EXPECT_GT(static_cast<double>(refused), rates[0] * seconds / static_cast<double>(rates.size()) / 2);
  testing::Test::RecordProperty("refused", static_cast<int>(refused));
  testing::Test::RecordProperty("dropped", static_cast<int>(counter(one, "system: dropped_by_kernel")));
  EXPECT_EQ(two.end(), 0);
  EXPECT_EQ(one.end(), 0);
}

TEST(LiveLoadTest, JunkBetweenJoinsLosesNoStateAndIsToldAtMostTenTimesASecond) {
  if (!thorough()) GTEST_SKIP() << "left to scripts/prove";
  REQUIRE_NAMESPACES();
  loseNothingToJunk(20, {1000, 10'000, 50'000, 50'000}, 2000);
}

TEST(LiveLoadTest, TwentyThousandRoutesAreThereAfterOneRefresh) {
  if (!thorough()) GTEST_SKIP() << "left to scripts/prove";
  REQUIRE_NAMESPACES();
  constexpr std::size_t routes = 20'000;
  Cable const lab;
  QuickAgent one(lab, "one", "va"), two(lab, "two", "vb", {}, " interval 5 hold 100");
  two.await(neighborUp("10.0.0.1"));
  one.await(neighborUp("10.0.0.2"));
  EXPECT_TRUE(two.ask(joinRange(routes, "239.0.0.0", "10.0.0.1"))["ok"]);
  EXPECT_EQ(downstreamOf(one, routes, 10).size(), routes);  // at most one refresh later
  EXPECT_EQ(two.end(), 0);
  for (int i = 0; i < 100 && counter(one, "downstream_routes") != 0; ++i) pause(0.05);
  EXPECT_EQ(counter(one, "downstream_routes"), 0);  // the prunes at the end
  EXPECT_EQ(one.end(), 0);
}

TEST(LiveLoadTest, MessagesFitSmallAndLargeMtus) {
  if (!thorough()) GTEST_SKIP() << "left to scripts/prove";
  REQUIRE_NAMESPACES();
  constexpr std::size_t routes = 3000;
  for (std::string const mtu : {"576", "9000"}) {
    Cable const lab;
    lab.in("one", "ip link set va mtu " + mtu);
    lab.in("two", "ip link set vb mtu " + mtu);
    auto const pcap = lab.path("pcap");
    QuickAgent one(lab, "one", "va"), two(lab, "two", "vb", {"--pcap", pcap}, " interval 2 hold 60");
    two.await(neighborUp("10.0.0.1"));
    one.await(neighborUp("10.0.0.2"));
    EXPECT_TRUE(two.ask(joinRange(routes, "239.0.0.0", "10.0.0.1"))["ok"]);
    EXPECT_EQ(downstreamOf(one, routes, 5).size(), routes) << mtu;
    EXPECT_EQ(one.count({{"event", "refused"}}), 0) << mtu;
    // A group with one joined source has 20 bytes; headers have 34.
    auto const most = (std::stoul(mtu) - 34) / 20;
    std::size_t largest = 0;
    two.count({});  // reads
    for (auto const& event : two.events())
      if (event["event"] == "sent") largest = std::max(largest, event["entries"].size());
    EXPECT_LE(largest, most) << mtu;
    EXPECT_GE(largest, std::min<std::size_t>(most, 255)) << mtu;  // full ones; the count of groups has a byte
    EXPECT_EQ(two.end(), 0);
    EXPECT_EQ(one.end(), 0);
  }
}

TEST(LiveLoadTest, WhatALossyLinkLosesIsThereOneRefreshLater) {
  if (!thorough()) GTEST_SKIP() << "left to scripts/prove";
  REQUIRE_NAMESPACES();
  constexpr std::size_t routes = 5000;
  Lab const lab({"one", "middle", "two"});
  for (auto const* const space : {"one", "middle", "two"})
    lab.in(space, "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6");
  lab.cable("one", "va", "middle", "m1");
  lab.cable("two", "vb", "middle", "m2");
  lab.in("one", "ip address add 10.0.0.1/24 dev va");
  lab.in("two", "ip address add 10.0.0.2/24 dev vb");
  // No kernel here need have the queueing discipline netem: the loss is that of a relay.
  void* const shared =
      mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto& percent = *new (shared) std::atomic<int>(0);
  Worker const carrier(lab, "middle", [&] { relay("m1", "m2", [&] { return percent.load() * 0.01; }); });
  QuickAgent one(lab, "one", "va", {}, " hello-hold 60");
  QuickAgent two(lab, "two", "vb", {}, " interval 2 hello-hold 60");
  one.await(neighborUp("10.0.0.2"));
  two.await(neighborUp("10.0.0.1"));
  percent = 20;
  EXPECT_TRUE(two.ask(joinRange(routes, "239.0.0.0", "10.0.0.1"))["ok"]);
  pause(0.5);
  auto const atFirst = downstreamOf(one, 1, 1).size();
  EXPECT_GT(atFirst, routes / 2);
  EXPECT_LT(atFirst, routes);  // some were lost
  pause(6);
  percent = 0;
  EXPECT_EQ(downstreamOf(one, routes, 2.5).size(), routes);
  EXPECT_EQ(two.end(), 0);
  EXPECT_EQ(one.end(), 0);
  munmap(shared, sizeof(std::atomic<int>));
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
