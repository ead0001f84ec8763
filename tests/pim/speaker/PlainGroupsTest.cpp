// SPDX-License-Identifier: Apache-2.0
// Groups of (S,G) joins, where no hook is asked about an entry, are added to a message by a short cut. It
// ends as the long way does.
#include <gtest/gtest.h>

#include <random>

#include "pim/model/packet/GroupEntries.h"
#include "pim/speaker/PacketManager.h"

namespace Routing::Pim::Speaker {
namespace {

class Packets final : public PacketSink {
 public:
  void send(OutgoingPacket const& packet) override { sent.push_back(packet.bytes); }
  std::vector<std::vector<U8>> sent;
};

/// A packet manager that sends one data set, message by message.
class Sender {
 public:
  Sender(Vel::Ptr<Status> const& status, Vel::Ptr<Packet::JoinPruneData> const& data, Suppression suppression)
      : manager_(Vel::create<PacketManager>(packets_, status, nullptr, std::move(suppression))) {
    manager_->start();
    message_->joinPruneDataIs(data);
    auto const record = manager_->txMessageInfo();
    record->joinPruneMessageIs(message_);
    record->intfIdIs(Dova::IntfId("eth0"));
  }

  Packet::JoinPruneMessage::Report send() {
    manager_->txMessageInfo()->countInc(1);
    return message_->report();
  }
  std::vector<std::vector<U8>> const& sent() const { return packets_.sent; }

 private:
  Packets packets_;
  Vel::Ptr<PacketManager> manager_;
  Vel::Ptr<Packet::JoinPruneMessage> const message_ = Vel::create<Packet::JoinPruneMessage>();
};

TEST(PlainGroupsTest, WhatNobodyIsAskedAboutIsSentAsWhatSomebodyAllows) {
  auto const status = Vel::create<Status>();
  status->pimIntfIs(Dova::IntfId("eth0"))->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.1/24"));
  std::size_t packets = 0;
  for (unsigned seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    auto const below = [&random](U32 n) { return static_cast<U32>(random() % n); };
    auto const data = Vel::create<Packet::JoinPruneData>(IpGenAddr("10.0.0.2"));
    data->periodicIs(true);
    auto const change = [&] {
      // Now and then a group that is none, or a source that no message can hold.
      auto const group = data->joinPruneGroupDataIs(below(40) == 0 ? IpGenAddr("10.1.1.1")
                                                                   : IpGenAddr::ipv4(0xef010100 + below(60)));
      auto const kind = below(4) == 0 ? entryKinds[below(6)] : EntryKind::sourceJoin;
      auto const source = below(200) == 0 ? IpGenAddr("239.9.9.9") : IpGenAddr::ipv4(0x0a090000 + below(300));
      below(5) == 0 ? Packet::removeEntry(*group, kind, source) : Packet::addEntry(*group, kind, source);
    };
    for (U32 entries = below(600); entries > 0; --entries) change();
    Sender plain(status, data, {});
    Sender asked(status, data, [](auto const&, auto const&, auto const&, EntryKind) { return false; });
    for (int message = 0; message < 12; ++message) {
      ASSERT_EQ(plain.send(), asked.send()) << "seed " << seed << ", message " << message;
      ASSERT_EQ(plain.sent(), asked.sent()) << "seed " << seed << ", message " << message;
      if (below(3) == 0) change();
    }
    packets += plain.sent().size();
  }
  EXPECT_GT(packets, 200u);
}

}  // namespace
}  // namespace Routing::Pim::Speaker
