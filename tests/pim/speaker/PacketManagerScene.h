// SPDX-License-Identifier: Apache-2.0
// A packet manager with data sets of the test's, and what comes out of it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <set>

#include "pim/speaker/PacketManager.h"
#include "pim/speaker/PacketSinks.h"
#include "tests/pim/joinprune/World.h"
#include "tests/pim/wire/Bytes.h"

namespace Routing::Pim::Speaker {

using namespace Wire::Test;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using Data = Vel::Ptr<Packet::JoinPruneData>;
using Group = Vel::Ptr<Packet::JoinPruneGroupData>;
using MessageReport = Packet::JoinPruneMessage::Report;

template <class T>
std::string shown(T const& value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

/// "join (S,G) 10.9.0.1 239.1.1.1", for a (*,G) entry with the RP.
inline std::string entry(EntryKind kind, IpGenAddr const& source, IpGenAddr const& group) {
  return std::string(actionText(kind)) + " " + std::string(routeText(kind)) + " " + toText(source) + " " +
         toText(group);
}

/// The entries of a message, group by group as they are on the wire.
inline Lines entriesOf(Wire::JoinPrune const& message) {
  Lines entries;
  for (auto const& group : message.groups())
    for (auto const& source : group.sources())
      entries.push_back(entry(source.kind, source.address, group.group()));
  return entries;
}

/// What is in a data set.
inline Lines entriesOf(Packet::JoinPruneGroupData const& group) {
  Lines entries;
  Packet::forEachEntry(group, [&](EntryKind kind, IpGenAddr const& address) {
    entries.push_back(entry(kind, address, group.group()));
  });
  return entries;
}

inline Lines sorted(Lines entries) {
  std::sort(entries.begin(), entries.end());
  return entries;
}

inline Lines entriesOf(Data const& data) {
  Lines entries;
  for (auto i = data->joinPruneGroupDataIterator(); i; ++i) {
    auto const more = entriesOf(*i);
    entries.insert(entries.end(), more.begin(), more.end());
  }
  return sorted(entries);
}

inline Lines entriesOf(std::vector<OutgoingPacket> const& packets) {
  Lines entries;
  for (auto const& packet : packets) {
    auto const more = entriesOf(packet.message);
    entries.insert(entries.end(), more.begin(), more.end());
  }
  return sorted(entries);
}

inline Vel::Ptr<Packet::WcSourceData> wildcardOf(IpGenAddr const& rp, bool join = true) {
  return Vel::create<Packet::WcSourceData>(rp, join);
}

/// The n-th address behind another of its family.
inline IpGenAddr behind(std::string_view first, U32 n) {
  IpGenAddr const base(first);
  Bytes bytes(base.bytes().begin(), base.bytes().end());
  for (std::size_t at = bytes.size(); n != 0; n >>= 8) {
    U32 const sum = bytes[--at] + (n & 0xff);
    bytes[at] = static_cast<U8>(sum);
    if (sum > 0xff) n += 0x100;
  }
  return IpGenAddr::fromBytes(bytes);
}

inline std::size_t packetSize(OutgoingPacket const& packet) {
  return packet.bytes.size() + (packet.source.isIpv4() ? 20 : 40);
}

/// What is true of every packet.
inline void expectRules(OutgoingPacket const& packet, std::size_t mtu) {
  EXPECT_LE(packetSize(packet), mtu);
  auto const decoded = Wire::decodeJoinPrune(packet.bytes, packet.source, packet.destination);
  auto const* const message = std::get_if<Wire::JoinPrune>(&decoded);
  ASSERT_TRUE(message) << toText(std::get<Wire::Refusal>(decoded));
  EXPECT_EQ(*message, packet.message);
  EXPECT_EQ(packet.bytes[7 + message->upstreamNeighbor().bytes().size()], message->groups().size());
  EXPECT_THAT(message->groups(), testing::Not(IsEmpty()));
  EXPECT_LE(message->groups().size(), 255u);
  std::set<IpGenAddr> groups;
  for (auto const& group : message->groups()) {
    EXPECT_TRUE(groups.insert(group.group()).second) << "a second set for " << group.group();
    EXPECT_FALSE(group.joins().empty() && group.prunes().empty()) << "an empty set for " << group.group();
    std::set<std::pair<EntryKind, IpGenAddr>> entries;
    for (auto const list : {group.joins(), group.prunes()}) {
      for (auto const& source : list) {
        // The address of a (*,G) entry is not its key: there is one in a set.
        auto const key = isWildcard(source.kind) ? IpGenAddr() : source.address;
        EXPECT_TRUE(entries.insert({joinOf(source.kind), key}).second)
            << routeText(source.kind) << " " << source.address << " twice for " << group.group();
      }
    }
  }
}

class PacketManagerTest : public testing::Test {
 protected:
  PacketManagerTest() {
    intfIs("eth0", "10.0.0.1/24");
    intfIs("eth6", "fe80::1/64");
    manager->start();
    Vel::traceSinkIs([this](Vel::TraceLine const& line) { traces.push_back(line.text); });
    Vel::TraceHandle::find("Pim::Agent").levelIs(2, true);
  }
  ~PacketManagerTest() override {
    Vel::TraceHandle::find("Pim::Agent").levelsDel();
    Vel::traceSinkIs({});
  }

  Vel::Ptr<Intf> intfIs(std::string_view name, std::string_view address = {}) {
    auto const intf = status->pimIntfIs(Dova::IntfId(name));
    intf->usedAddressWithMaskIs(address.empty() ? Dova::IpGenPrefix()
                                                : *Dova::IpGenPrefix::fromText(address));
    return intf;
  }

  static Data dataIs(std::string_view upstream, bool periodic = false) {
    auto const data = Vel::create<Packet::JoinPruneData>(IpGenAddr(upstream));
    data->holdTimeIs(210);
    data->periodicIs(periodic);
    return data;
  }
  static Group groupIs(Data const& data, std::string_view group) {
    return data->joinPruneGroupDataIs(IpGenAddr(group));
  }

  /// Another manager in the place of the first one, with the same sink.
  void managerIs(Vel::Ptr<JoinPruneFilter const> const& filter, Suppression suppression = {}) {
    auto const record = manager->txMessageInfoIs();
    manager->stop();
    manager = Vel::create<PacketManager>(sink, status, filter, std::move(suppression));
    manager->start();
  }

  /// Asks for one message, as a machine does.
  MessageReport ask(Data const& data, std::string_view intf = "eth0") {
    auto const record = manager->txMessageInfo();
    auto const message =
        record->joinPruneMessage() ? record->joinPruneMessage() : Vel::create<Packet::JoinPruneMessage>();
    record->joinPruneMessageIs(message);
    record->intfIdIs(Dova::IntfId(intf));
    message->joinPruneDataIs(data);
    message->reportIs({});
    record->countInc(1);
    return message->report();
  }

  /// Continues until nothing is left or a step makes no progress, as an expiry without a deadline.
  void askForAll(Data const& data, std::string_view intf = "eth0") {
    for (U32 steps = 0; data->joinPruneGroupDataCount() != 0; ++steps) {
      auto const report = ask(data, intf);
      if (report.sources == 0 && report.filteredSources == 0) return;
      ASSERT_LT(steps, 100'000u) << "it does not end";
    }
  }

  void mtuIs(std::string_view intf, U32 mtu) { manager->mtuIs(Dova::IntfId(intf), mtu); }
  /// An IPv4 MTU with room for so many groups and sources.
  void mtuFor(U32 groups, U32 sources) { mtuIs("eth0", 34 + 12 * groups + 8 * sources); }

  std::vector<OutgoingPacket> const& packets() const { return captured.packets(); }
  /// The entries of each packet since the last time.
  std::vector<Lines> taken() {
    std::vector<Lines> all;
    for (auto const& packet : captured.take()) {
      expectRules(packet, manager->mtu(packet.intf));
      all.push_back(entriesOf(packet.message));
    }
    return all;
  }

  Vel::Ptr<Status> status = Vel::create<Status>();
  CapturedPackets captured;
  std::function<void(OutgoingPacket const&)> onSend;  // before the packet is noted
  ForwardedPackets sink{[this](OutgoingPacket const& packet) {
    if (auto const call = onSend) call(packet);  // a copy, since it may take itself out
    captured.send(packet);
  }};
  Vel::Ptr<PacketManager> manager = Vel::create<PacketManager>(sink, status);
  Lines traces;
};

}  // namespace Routing::Pim::Speaker
