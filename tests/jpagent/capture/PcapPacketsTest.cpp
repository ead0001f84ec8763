// SPDX-License-Identifier: Apache-2.0
// A capture of what a packet manager sends, and what others read there.
#include "jpagent/capture/PcapPackets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <random>

#include "pim/speaker/PacketSinks.h"
#include "tests/jpagent/TsharkPackets.h"
#include "tests/pim/speaker/OnePacket.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;
using Speaker::packet;
using testing::IsEmpty;
using testing::SizeIs;

TEST(PcapPacketsTest, APcapFileHasWholeDatagramsThatTheProjectsOwnCaptureReads) {
  TemporaryFolder const folder;
  auto const path = folder.file("sent.pcap");
  U64 now = 1'700'000'000'000'000;
  PcapPackets packets(path, [&] { return now; });
  for (bool const four : {true, false}) {
    packets.send(packet(four, 210));
    now += 1'500'000;
  }
  packets.close();

  Capture capture(path);
  Frame frame;
  for (bool const four : {true, false}) {
    SCOPED_TRACE(four ? "IPv4" : "IPv6");
    ASSERT_TRUE(capture.next(frame));
    EXPECT_EQ(frame.time, four ? 0 : 1.5);
    EXPECT_EQ(frame.link, LinkType::ethernet);
    auto const found = findDatagram(frame.link, frame.bytes);
    auto const* const datagram = std::get_if<Datagram>(&found);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->state, Datagram::State::whole);
    EXPECT_EQ(datagram->protocol, Wire::pimProtocol);
    EXPECT_EQ(datagram->source, packet(four, 210).source);
    EXPECT_EQ(datagram->destination, packet(four, 210).destination);
    auto const decoded = Wire::decodeJoinPrune(datagram->payload, datagram->source, datagram->destination);
    ASSERT_TRUE(std::holds_alternative<Wire::JoinPrune>(decoded)) << toText(std::get<Wire::Refusal>(decoded));
    EXPECT_EQ(std::get<Wire::JoinPrune>(decoded), packet(four, 210).message);
    // Behind 14 bytes of Ethernet: the hop limit must keep the packet on its link.
    EXPECT_EQ(frame.bytes[14 + (four ? 8 : 7)], 1);
  }
  EXPECT_FALSE(capture.next(frame));
}

TEST(PcapPacketsTest, APcapFileHasItsNameWhenTheSinkIsClosedAndNotBefore) {
  TemporaryFolder const folder;
  auto const path = folder.file("sent.pcap");
  PcapPackets(path).send(packet(true, 210));
  EXPECT_THROW(Capture capture(path), CaptureError);
  PcapPackets packets(path);
  packets.send(packet(true, 210));
  packets.close();
  Capture capture(path);
  Frame frame;
  EXPECT_TRUE(capture.next(frame));
  EXPECT_FALSE(capture.next(frame));
}

TEST(PcapPacketsTest, WithoutAClockThePacketsHaveTheSystemsTime) {
  TemporaryFolder const folder;
  auto const path = folder.file("sent.pcap");
  std::time_t const before = std::time(nullptr);
  PcapPackets packets(path);
  packets.send(packet(true, 210));
  packets.close();
  std::time_t const after = std::time(nullptr);
  // The first packet's seconds lie behind the file's 24 bytes, in the order of this machine.
  auto const bytes = readBytes(path);
  ASSERT_GE(bytes.size(), 28u);
  U32 seconds;
  std::memcpy(&seconds, &bytes[24], sizeof seconds);
  EXPECT_GE(seconds, static_cast<U32>(before));
  EXPECT_LE(seconds, static_cast<U32>(after));
}

TEST(PcapPacketsTest, APcapFileThatCannotBeMadeIsSaidAtOnceAndOneThatIsFullAtItsEnd) {
  TemporaryFolder const folder;
  EXPECT_THROW(PcapPackets(folder.file("nowhere/sent.pcap")), OutputError);
  PcapPackets full("/dev/full");
  full.send(packet(true, 210));
  EXPECT_THROW(full.close(), OutputError);
}

TEST(PcapPacketsTest, TsharkReadsTheSameInThePacketsOfRandomDataSets) {
  if (!hasTshark()) GTEST_SKIP() << "tshark is not installed";
  TemporaryFolder const folder;
  auto const path = folder.file("sent.pcap");
  PcapPackets file(path);
  std::vector<Fields> sent;
  Speaker::ForwardedPackets both([&](Speaker::OutgoingPacket const& outgoing) {
    file.send(outgoing);
    sent.push_back(fieldsOf(outgoing.source, outgoing.destination, outgoing.message));
  });

  auto const status = Vel::create<Status>();
  status->pimIntfIs(Dova::IntfId("eth0"))->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.1/24"));
  status->pimIntfIs(Dova::IntfId("eth6"))->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("fe80::1/64"));
  auto const manager = Vel::create<Speaker::PacketManager>(both, status);
  manager->start();
  auto const record = manager->txMessageInfo();
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  record->joinPruneMessageIs(message);

  std::mt19937 random(4601);
  for (U32 n = 0; n < 60; ++n) {
    bool const four = random() % 2;
    auto const address = [&](std::string const& ipv4Start, std::string const& ipv6Start, U32 limit) {
      return IpGenAddr((four ? ipv4Start : ipv6Start) + std::to_string(1 + random() % limit));
    };
    auto const data = Vel::create<Packet::JoinPruneData>(address("10.0.0.", "fe80::", 9));
    data->holdTimeIs(static_cast<U16>(random()));
    for (U32 entries = 1 + static_cast<U32>(random() % 80); entries; --entries) {
      auto const group = data->joinPruneGroupDataIs(address("239.1.1.", "ff0e::", 12));
      auto const source = address("10.9.0.", "2001:db8::", 20);
      switch (random() % 5) {
        case 0:
          group->wcSourceDataIs(Vel::create<Packet::WcSourceData>(source, random() % 3 != 0));
          break;
        case 1:
          group->joinedSourceIs(source);
          break;
        case 2:
          group->prunedSourceIs(source);
          break;
        case 3:
          group->joinedRptSourceIs(source);
          break;
        default:
          group->prunedRptSourceIs(source);
      }
    }
    record->intfIdIs(Dova::IntfId(four ? "eth0" : "eth6"));
    manager->mtuIs(record->intfId(), 400 + static_cast<U32>(random() % 1100));
    message->joinPruneDataIs(data);
    while (data->joinPruneGroupDataCount() != 0) {
      record->countInc(1);
      ASSERT_NE(message->report().sources, 0u);
    }
  }
  file.close();
  EXPECT_GT(sent.size(), 60u);
  EXPECT_EQ(readByTshark(path), sent);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
