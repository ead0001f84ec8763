// SPDX-License-Identifier: Apache-2.0
// The packet manager of examples/event_loop_agent.cpp, on what its own run does not show.
#define main exampleMain
#include "examples/event_loop_agent.cpp"
#undef main

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Router A with its upstream neighbor 10.0.0.2, on a clock that the test moves; what it sends
// can be read from the other socket.
class EventLoopAgent : public testing::Test {
 protected:
  EventLoopAgent() {
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, sockets_) != 0) ADD_FAILURE() << "no sockets";
    router = std::make_unique<Router>("A", sockets_[0], wheel);
    auto const eth0 = router->pim->pimIntfIs(Dova::IntfId("eth0"));
    eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(IpGenAddr("10.0.0.1"), 24));
    router->pim->pimNeighborIs(upstream, eth0);
  }
  ~EventLoopAgent() override {
    router.reset();
    for (int const socket : sockets_) close(socket);
  }

  void wait(Vel::Seconds seconds) {
    now_ += seconds;
    testing::internal::CaptureStdout();
    wheel->expire();
    testing::internal::GetCapturedStdout();
  }

  // The packets that have come out, each without its first line.
  std::vector<std::string> packets() {
    std::vector<std::string> all;
    std::array<char, 4096> buffer;
    for (ssize_t size; (size = recv(sockets_[1], buffer.data(), buffer.size(), 0)) > 0;) {
      std::string const packet(buffer.data(), static_cast<std::size_t>(size));
      all.push_back(packet.substr(packet.find('\n') + 1));
    }
    return all;
  }
  void fillTheSocket() {
    std::string const full(100, 'x');
    while (send(router->socket(), full.data(), full.size(), 0) > 0) continue;
  }
  std::vector<std::string> lines(std::vector<std::string> const& packets) {
    std::vector<std::string> all;
    for (auto const& packet : packets) {
      std::istringstream in(packet);
      for (std::string line; std::getline(in, line);) all.push_back(line);
    }
    std::ranges::sort(all);
    return all;
  }

  void deliver(std::string const& packet) {
    ASSERT_EQ(send(sockets_[1], packet.data(), packet.size(), 0), static_cast<ssize_t>(packet.size()));
    router->receive(Dova::IntfId("eth0"));
  }

  void fill(Packet::JoinPruneData& data, int groups, int sources) {
    for (int g = 1; g <= groups; ++g)
      for (int s = 1; s <= sources; ++s)
        data.joinPruneGroupDataIs(IpGenAddr("239.1.1." + std::to_string(g)))
            ->joinedSourceIs(IpGenAddr("10.9.0." + std::to_string(s)));
  }

  Vel::Seconds now_ = 0;
  int sockets_[2];
  Vel::Ptr<Zanth::TimerWheel> const wheel = Vel::create<Zanth::TimerWheel>([this] { return now_; });
  IpGenAddr const upstream{"10.0.0.2"};
  std::unique_ptr<Router> router;
};

TEST_F(EventLoopAgent, SendsEveryKindOfEntryOnceAndLeavesNothingPending) {
  auto const data = router->status->triggeredGroup(upstream);
  auto const group = data->joinPruneGroupDataIs(IpGenAddr("239.1.1.1"));
  group->wcSourceDataIs(Vel::create<Packet::WcSourceData>(IpGenAddr("10.0.0.9"), true));
  group->joinedSourceIs(IpGenAddr("10.9.0.1"));
  group->prunedSourceIs(IpGenAddr("10.9.0.2"));
  group->joinedRptSourceIs(IpGenAddr("10.9.0.3"));
  group->prunedRptSourceIs(IpGenAddr("10.9.0.4"));
  wait(0.1);
  EXPECT_THAT(packets(), ElementsAre("(*,G)-join 239.1.1.1 10.0.0.9\njoin 239.1.1.1 10.9.0.1\n"
                                     "prune 239.1.1.1 10.9.0.2\nrpt-join 239.1.1.1 10.9.0.3\n"
                                     "rpt-prune 239.1.1.1 10.9.0.4\n"));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
  wait(0.2);
  EXPECT_THAT(packets(), IsEmpty());
}

TEST_F(EventLoopAgent, SendsManyChangesInSeveralPackets) {
  fill(*router->status->triggeredGroup(upstream), 3, 15);
  wait(0.1);
  auto const sent = packets();
  EXPECT_EQ(sent.size(), 3u);
  auto all = lines(sent);
  EXPECT_EQ(all.size(), 45u);
  EXPECT_EQ(std::ranges::adjacent_find(all), all.end());
}

TEST_F(EventLoopAgent, RefreshesEveryRouteOnceAnInterval) {
  fill(*router->status->periodicGroupStatus()->upJoinPrune(upstream), 3, 15);
  for (int interval = 0; interval < 3; ++interval) {
    wait(60);
    auto const sent = packets();
    EXPECT_EQ(sent.size(), 3u);
    auto all = lines(sent);
    EXPECT_EQ(all.size(), 45u);
    EXPECT_EQ(std::ranges::adjacent_find(all), all.end());
  }
}

TEST_F(EventLoopAgent, TriesAgainLaterWhatCouldNotBeSent) {
  fillTheSocket();
  auto const data = router->status->triggeredGroup(upstream);
  fill(*data, 1, 1);
  wait(0.1);
  EXPECT_EQ(data->joinPruneGroupDataCount(), 1u);
  packets();
  wait(0.1);
  EXPECT_THAT(packets(), ElementsAre("join 239.1.1.1 10.9.0.1\n"));
}

TEST_F(EventLoopAgent, ARefreshThatCouldNotBeSentBeginsAtItsFrontTheNextTime) {
  fill(*router->status->periodicGroupStatus()->upJoinPrune(upstream), 3, 15);
  fillTheSocket();
  wait(60);
  packets();
  wait(60);
  auto const sent = packets();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(lines({sent[0]}).size(), 20u);
  EXPECT_EQ(lines({sent[1]}).size(), 20u);
  EXPECT_EQ(lines({sent[2]}).size(), 5u);
}

TEST_F(EventLoopAgent, TakesNothingFromAPacketThatIsWrongAnywhere) {
  deliver("10.0.0.1 210\njoin 239.1.1.1 10.9.0.1\njoin 239.1.1.1 nowhere\n");
  deliver("10.0.0.1 210\nhello 239.1.1.1 10.9.0.1\n");
  deliver("10.0.0.1\n");
  EXPECT_EQ(router->rxJoin->rxCount(), 0u);
  deliver("10.0.0.1 210\njoin 239.1.1.1 10.9.0.1\nrpt-prune 239.1.1.1 10.9.0.2\n");
  EXPECT_EQ(router->rxJoin->rxCount(), 1u);
  EXPECT_EQ(router->rxPrune->rxCount(), 1u);
}

}  // namespace
