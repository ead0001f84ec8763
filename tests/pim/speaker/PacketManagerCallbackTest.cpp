// SPDX-License-Identifier: Apache-2.0
// What callbacks may do while a packet manager sends.
#include "tests/pim/speaker/PacketManagerScene.h"

namespace Routing::Pim::Speaker {
namespace {

TEST_F(PacketManagerTest, DoesNotSendFromWithinItsOwnSending) {
  auto const data = dataIs("10.0.0.2"), other = dataIs("10.0.0.3");
  for (auto const& one : {data, other}) groupIs(one, "239.1.1.1")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  std::vector<MessageReport> reports;
  onSend = [&](auto const&) {
    onSend = nullptr;
    reports = {ask(data), ask(other)};
  };
  ask(data);
  EXPECT_THAT(reports, ElementsAre(MessageReport(), MessageReport{1, 0, 0}));
  EXPECT_THAT(packets(), SizeIs(2));
  EXPECT_EQ(data->joinPruneGroupDataCount() + other->joinPruneGroupDataCount(), 0u);
}

TEST_F(PacketManagerTest, LeavesWhatIsNoLongerWhatItSent) {
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1"), other = groupIs(data, "239.1.1.2");
  group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  other->joinedSourceIs(IpGenAddr("10.9.0.1"));
  Group again;
  onSend = [&](auto const&) {
    group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1"), false));
    group->prunedSourceIs(IpGenAddr("10.9.0.2"));
    other->joinedSourceDel(IpGenAddr("10.9.0.1"));
    data->joinPruneGroupDataDel(other->group());
    again = groupIs(data, "239.1.1.2");
    again->joinedSourceIs(IpGenAddr("10.9.0.1"));
    onSend = nullptr;
  };
  EXPECT_EQ(ask(data), (MessageReport{2, 0, 0}));
  EXPECT_EQ(entriesOf(data), (Lines{"join (S,G) 10.9.0.1 239.1.1.2", "prune (*,G) 10.255.0.1 239.1.1.1",
                                    "prune (S,G) 10.9.0.2 239.1.1.1"}));
  captured.take();
  askForAll(data);
  EXPECT_EQ(entriesOf(packets()), (Lines{"join (S,G) 10.9.0.1 239.1.1.2", "prune (*,G) 10.255.0.1 239.1.1.1",
                                         "prune (S,G) 10.9.0.2 239.1.1.1"}));
}

TEST_F(PacketManagerTest, LeavesAnEmptiedGroupThatSomebodyHasMadeAnew) {
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  group->joinedSourceIs(IpGenAddr("10.9.0.1"));
  Group again;
  onSend = [&](auto const&) {
    data->joinPruneGroupDataDel(group->group());
    again = groupIs(data, "239.1.1.1");
  };
  ask(data);
  EXPECT_EQ(data->joinPruneGroupData(IpGenAddr("239.1.1.1")), again);
}

TEST_F(PacketManagerTest, MayBeLetGoByItsOwnSuppressionHookAndThenSendsNothing) {
  int asked = 0;
  managerIs(nullptr, [&, mine = std::string("still there")](auto const&...) {
    if (asked++ == 0) manager = nullptr;
    EXPECT_EQ(mine, "still there");
    return false;
  });
  auto const data = dataIs("10.0.0.2");
  for (U32 n = 1; n <= 3; ++n) groupIs(data, "239.1.1.1")->joinedSourceIs(behind("10.9.0.0", n));
  EXPECT_EQ(ask(data), MessageReport());
  EXPECT_EQ(asked, 3);
  EXPECT_THAT(packets(), IsEmpty());
  EXPECT_EQ(data->joinPruneGroupDataCount(), 1u);
}

/// Calls at each report of a message.
class ReportReactor final : public Packet::JoinPruneMessage::NotifieeConst {
 public:
  explicit ReportReactor(std::function<void()> call) : call_(std::move(call)) {}
  void onReport() override { call_(); }

 private:
  std::function<void()> const call_;
};

TEST_F(PacketManagerTest, SendsNothingIfItIsLetGoOrStoppedWhileItClearsTheReport) {
  manager->stop();
  for (bool const letGo : {true, false}) {
    manager = Vel::create<PacketManager>(sink, status);
    manager->start();
    auto const record = manager->txMessageInfo();
    auto const message = Vel::create<Packet::JoinPruneMessage>();
    message->reportIs({1, 2, 3});
    auto const watcher =
        Vel::create<ReportReactor>([&] { letGo ? void(manager = nullptr) : manager->stop(); });
    watcher->notifierIs(message);
    record->joinPruneMessageIs(message);
    auto const data = dataIs("10.0.0.2");
    groupIs(data, "239.1.1.1")->joinedSourceIs(IpGenAddr("10.9.0.1"));
    message->joinPruneDataIs(data);
    record->intfIdIs(Dova::IntfId("eth0"));
    record->countInc(1);
    EXPECT_THAT(packets(), IsEmpty()) << letGo;
    EXPECT_EQ(data->joinPruneGroupDataCount(), 1u) << letGo;
  }
}

/// Calls at each count of a record.
class CountReactor final : public IO::MessageInfo::NotifieeConst {
 public:
  explicit CountReactor(std::function<void()> call) : call_(std::move(call)) {}
  void onCount() override { call_(); }

 private:
  std::function<void()> const call_;
};

TEST_F(PacketManagerTest, SendsNothingIfItGoesBeforeItsTurnAtTheRecord) {
  manager = Vel::create<PacketManager>(sink, status);
  auto const first = Vel::create<CountReactor>([this] { manager = nullptr; });
  first->notifierIs(manager->txMessageInfoIs());
  manager->start();
  auto const data = dataIs("10.0.0.2");
  groupIs(data, "239.1.1.1")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), MessageReport());
  EXPECT_THAT(packets(), IsEmpty());
  EXPECT_FALSE(manager);
}

/// Calls when a manager gets another transmit record.
class RecordReactor final : public IO::PamManager::NotifieeConst {
 public:
  explicit RecordReactor(std::function<void()> call) : call_(std::move(call)) {}
  void onTxMessageInfo() override { call_(); }

 private:
  std::function<void()> const call_;
};

TEST_F(PacketManagerTest, MayBeStoppedWhileItMakesItsRecord) {
  manager = Vel::create<PacketManager>(sink, status);
  auto const watcher = Vel::create<RecordReactor>([this] { manager->stop(); });
  watcher->notifierIs(manager);
  manager->start();
  auto const data = dataIs("10.0.0.2");
  groupIs(data, "239.1.1.1")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), MessageReport());
  EXPECT_THAT(packets(), IsEmpty());
}

TEST_F(PacketManagerTest, HasNoJoinAndPruneOfTheSameInAMessageAlsoIfTheHookTurnsOneIntoTheOther) {
  IpGenAddr const source("10.9.0.1"), other("10.9.0.2");
  for (bool const rpt : {false, true}) {
    auto const data = dataIs("10.0.0.2");
    auto const group = groupIs(data, "239.1.1.1");
    // Whatever is taken into a message first, it becomes its opposite before the message is done.
    managerIs(nullptr, [&](auto const&, auto const&, RouteKey const& route, EntryKind) {
      if (route.source() == source) return false;
      if (rpt && group->prunedRptSourceDel(source)) group->joinedRptSourceIs(source);
      if (!rpt && group->joinedSourceDel(source)) group->prunedSourceIs(source);
      return false;
    });
    rpt ? group->prunedRptSourceIs(source) : group->joinedSourceIs(source);
    rpt ? group->prunedRptSourceIs(other) : group->prunedSourceIs(other);
    if (!rpt) group->joinedRptSourceIs(other);
    askForAll(data);
    auto const messages = taken();  // which looks for a join beside a prune
    EXPECT_THAT(messages, SizeIs(2)) << "what it became is sent afterwards";
    EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
  }
}

/// Calls when a data set is about to go.
class EndReactor final : public Packet::JoinPruneData::NotifieeConst {
 public:
  EndReactor(Data const& data, std::function<void()> call) : call_(std::move(call)) {
    isNondestructingIs(true);
    notifierIs(data);
  }
  void onZeroReferences() override { call_(); }

 private:
  std::function<void()> const call_;
};

TEST_F(PacketManagerTest, MayGoWhileADataSetThatItRemembersGoes) {
  auto data = dataIs("10.0.0.2", true);
  bool ended = false;
  auto const first = Vel::create<EndReactor>(data, [&] {
    ended = true;
    manager = nullptr;
  });
  groupIs(data, "239.1.1.1")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  ask(data);
  EXPECT_EQ(manager->bookmarks(), 1u);
  manager->txMessageInfo()->joinPruneMessage()->joinPruneDataIs(nullptr);
  data = nullptr;
  EXPECT_TRUE(ended);
  EXPECT_FALSE(manager);
}

}  // namespace
}  // namespace Routing::Pim::Speaker
