// SPDX-License-Identifier: Apache-2.0
// Everything that speakers send, in conversations and in a network of them: tshark reads each field as it was
// written.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "jpagent/capture/PcapPackets.h"
#include "jpagent/simulate/Simulation.h"
#include "tests/jpagent/TsharkPackets.h"
#include "tests/network/Network.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;

/// Writes packets into a capture, and keeps what they say.
class SpeakerTsharkTest : public testing::Test, public Speaker::PacketSink {
 protected:
  void SetUp() override {
    if (!hasTshark()) GTEST_SKIP() << "tshark is not installed";
  }
  void send(Speaker::OutgoingPacket const& packet) override {
    file_.send(packet);
    auto const& [source, destination] = std::tie(packet.source, packet.destination);
    auto const keep = [&](auto const& decoded, std::size_t& count) {
      ++count;
      if (auto const* const refusal = std::get_if<Wire::Refusal>(&decoded))
        written_.push_back({"refused: " + toText(*refusal)});
      else
        written_.push_back(fieldsOf(source, destination, std::get<0>(decoded)));
    };
    if (Wire::isPimType(packet.bytes, Wire::PimType::hello))
      keep(Wire::decodeHello(packet.bytes, source, destination), hellos_);
    else
      keep(Wire::decodeJoinPrune(packet.bytes, source, destination), joinPrunes_);
  }
  void expectSameByTshark() {
    file_.close();
    auto const read = readByTshark(path_);
    ASSERT_EQ(read.size(), written_.size());
    for (std::size_t n = 0; n < read.size(); ++n) ASSERT_EQ(read[n], written_[n]) << "frame " << n + 1;
  }

  std::size_t hellos_ = 0, joinPrunes_ = 0;

 private:
  TemporaryFolder const folder_;
  std::string const path_ = folder_.file("sent.pcap");
  PcapPackets file_{path_};
  std::vector<Fields> written_;
};

TEST_F(SpeakerTsharkTest, TsharkReadsAllPacketsOfConversationsWithSpeakersAsTheyWereWritten) {
  std::size_t conversations = 0;
  for (auto const& entry : std::filesystem::directory_iterator(JOINPRUNE_SOURCE_DIR "/tests/conversations")) {
    if (!entry.path().filename().string().starts_with("speaker-")) continue;
    ++conversations;
    std::ostringstream out;
    Simulation simulation(out, this);
    simulate(Conversation(readText(entry.path())), simulation);
  }
  EXPECT_GE(conversations, 20u);
  EXPECT_GE(hellos_, 50u);
  EXPECT_GE(joinPrunes_, 50u);
  expectSameByTshark();
}

TEST_F(SpeakerTsharkTest, TsharkReadsThePacketsOfANetworkAsTheyWereWritten) {
  using namespace Networks;
  using Speaker::RouteKind;
  // Each router announces something else.
  auto const settingsOf = [](U32 router) {
    Speaker::InterfaceSettings settings;
    settings.hello.drPriority = router * 1'000'000'000;
    settings.hello.lanPruneDelay = {router % 2 == 0, static_cast<U16>(100 * router),
                                    static_cast<U16>(900 + router)};
    settings.hello.holdTime = static_cast<U16>(router == 1 ? 0xffff : 90 + router);
    settings.joinPruneHoldTime = static_cast<U16>(200 + router);
    return settings;
  };
  Network network(4601, settingsOf);
  network.packetsAlsoGoTo([this](Speaker::Outgoing const& packet) {
    auto const decoded = Wire::decodeJoinPrune(packet.bytes, packet.source, packet.destination);
    auto const* const message = std::get_if<Wire::JoinPrune>(&decoded);
    send({packet.intf,
          packet.source,
          packet.destination,
          message ? *message : Wire::JoinPrune(packet.source, 0),
          {packet.bytes.begin(), packet.bytes.end()}});
  });
  network.lanIs({0, 1, 2, 3});
  network.lanIs({2, 3, 4});
  network.faultsAre({.loss = 0.2, .delay = 0.2});
  for (U32 n = 0; n < 150; ++n) {
    bool const isIpv4 = network.below(2);
    IpGenAddr const group((isIpv4 ? "239.1.1." : "ff0e::") + std::to_string(1 + network.below(9)));
    IpGenAddr const source((isIpv4 ? "10.9.0." : "2001:db8::") + std::to_string(1 + network.below(9)));
    U32 const lan = network.below(2), first = lan == 0 ? 0 : 2, router = first + 1 + network.below(2);
    switch (network.below(6)) {
      case 0:
        network.want(router, {{RouteKind::sourceRpt, source, group}});
        break;
      case 1:
        network.leave(router, {RouteKind::source, source, group});
        break;
      case 2:
        network.want(router, {Route::wildcard(group), lan, first});
        break;
      default:
        network.want(router, {{RouteKind::source, source, group}, lan, first});
    }
    if (n % 50 == 49) network.restart(network.below(5));
    network.runFor(1);
  }
  network.end(4);
  network.runFor(1);
  EXPECT_GE(hellos_, 50u);
  EXPECT_GE(joinPrunes_, 50u);
  expectSameByTshark();
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
