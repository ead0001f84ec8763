// SPDX-License-Identifier: Apache-2.0
// A capture of what a packet manager sends, and what others read there.
#include "jpagent/capture/PcapPackets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <nlohmann/json.hpp>
#include <random>

#include "pim/speaker/PacketSinks.h"
#include "tests/jpagent/Support.h"
#include "tests/jpagent/TsharkJson.h"
#include "tests/pim/speaker/OnePacket.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;
using nlohmann::json;
using Speaker::packet;
using testing::IsEmpty;
using testing::SizeIs;

/// One line for each entry of a message, with everything that it says.
void describe(std::vector<std::string>& to, std::string const& frame, Wire::JoinPrune const& message) {
  for (auto const& group : message.groups()) {
    auto const add = [&](char const* record, std::span<Wire::Source const> sources) {
      for (auto const& source : sources)
        to.push_back(frame + " " + record + " flags " + std::to_string(flagsOf(source.kind)) + " (" +
                     toText(source.address) + "," + toText(group.group()) + ") to " +
                     toText(message.upstreamNeighbor()) + " hold " + std::to_string(message.holdTime()));
    };
    add("join", group.joins());
    add("prune", group.prunes());
  }
}

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

// What tshark says about a capture, entry by entry in the form of describe(), or why a packet is not good.

std::vector<std::string> toldByTshark(std::string const& path) {
  auto const outcome =
      run("tshark", {"-r", path, "-T", "json", "--no-duplicate-keys", "-o", "ip.check_checksum:TRUE"});
  std::vector<std::string> told;
  for (auto const& read : json::parse(outcome.out)) {
    auto const& layers = read["_source"]["layers"];
    auto const frame = layers["frame"]["frame.number"].get<std::string>();
    auto const& pim = layers["pim"];
    if (layers.contains("_ws.malformed")) told.push_back(frame + " malformed");
    if (pim.value("pim.cksum.status", "") != "1") told.push_back(frame + " bad PIM checksum");
    if (layers.contains("ip") && layers["ip"].value("ip.checksum.status", "") != "1")
      told.push_back(frame + " bad IP checksum");
    auto const& option = pim["pim.option"];
    for (auto const& set : listOf(option, "pim.group_set_tree")) {
      for (std::string const record : {"join", "prune"}) {
        auto const lists = set.value("pim.num" + record + "s_tree", json::object());
        for (std::string const family : {"ip", "ip6"}) {
          for (auto const& source : listOf(lists, "pim." + record + "_" + family + "_tree"))
            told.push_back(
                frame + " " + record + " flags " +
                std::to_string(std::stoi(source["pim.source_addr.flags"].get<std::string>(), nullptr, 16)) +
                " (" + textOf(source, "pim.source", "pim.source_ip6") + "," +
                textOf(set, "pim.group", "pim.group_ip6") + ") to " +
                textOf(option, "pim.upstream_neighbor", "pim.upstream_neighbor_ip6") + " hold " +
                option["pim.holdtime"].get<std::string>());
        }
      }
    }
  }
  return told;
}

TEST(PcapPacketsTest, TsharkReadsTheSameInThePacketsOfRandomDataSets) {
  if (run("sh", {"-c", "command -v tshark"}).status != 0) GTEST_SKIP() << "tshark is not installed";
  TemporaryFolder const folder;
  auto const path = folder.file("sent.pcap");
  PcapPackets file(path);
  std::vector<std::string> sent;
  U32 frames = 0;
  Speaker::ForwardedPackets both([&](Speaker::OutgoingPacket const& outgoing) {
    file.send(outgoing);
    describe(sent, std::to_string(++frames), outgoing.message);
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
  EXPECT_GT(frames, 60u);
  EXPECT_EQ(toldByTshark(path), sent);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
