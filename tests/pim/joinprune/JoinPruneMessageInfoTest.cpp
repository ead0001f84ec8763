// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPruneMessageInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/pim/model/Recorder.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RecordRecorder final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  explicit RecordRecorder(Log& log) : log_(log) {}
  bool faulty = false;

  void onRiKey() override { heard("riKey"); }
  void onUpstreamNeighbor() override { heard("upstreamNeighbor"); }
  void onSourceFlags() override { heard("sourceFlags"); }
  void onHoldTime() override { heard("holdTime"); }
  void onWcSource() override { heard("wcSource"); }
  void onRxCount() override { heard("rxCount"); }
  void onNotificationException(Vel::AttributeId id) override {
    log_.push_back("exception " + std::to_string(id));
  }
  void onZeroReferences() override { log_.push_back("zero references"); }

 private:
  void heard(char const* what) {
    log_.push_back(what);
    if (faulty) throw 1;
  }
  Log& log_;
};

class JoinPruneMessageInfoTest : public testing::Test {
 protected:
  JoinPruneMessageInfoTest() { recorder->notifierIs(record); }

  // One received entry, in the order in which entries are written.
  void receive(RouteIntfKey const& route, Packet::SourceFlags flags) {
    record->upstreamNeighborIs("10.0.0.2"_ip);
    record->holdTimeIs(105);
    record->riKeyIs(route);
    record->sourceFlagsIs(flags);
    record->rxCountInc(1);
  }

  Log log;
  Vel::Ptr<JoinPruneMessageInfo> record = joinPruneMessageInfoFactory();
  Vel::Ptr<RecordRecorder> recorder = Vel::create<RecordRecorder>(log);
  RouteIntfKey const key{"10.0.0.1"_ip, "239.1.1.1"_ip, {}};
};

TEST_F(JoinPruneMessageInfoTest, ANewRecordHasItsDefaults) {
  auto const fresh = joinPruneMessageInfoFactory();
  EXPECT_EQ(fresh->references(), 1u);
  EXPECT_EQ(fresh->riKey(), RouteIntfKey());
  EXPECT_EQ(fresh->upstreamNeighbor(), Dova::IpGenAddr());
  EXPECT_EQ(fresh->sourceFlags(), Packet::SourceFlags(0));
  EXPECT_EQ(fresh->holdTime(), 210.0);
  EXPECT_EQ(fresh->wcSource(), Dova::IpGenAddr());
  EXPECT_EQ(fresh->rxCount(), 0u);
}

TEST_F(JoinPruneMessageInfoTest, EachSetterNotifiesItsOwnAttributeOnceWhenItChanges) {
  std::pair<char const*, std::function<void()>> const rows[] = {
      {"riKey", [&] { record->riKeyIs(key); }},
      {"upstreamNeighbor", [&] { record->upstreamNeighborIs("10.0.0.2"_ip); }},
      {"sourceFlags", [&] { record->sourceFlagsIs(Packet::sgFlags); }},
      {"holdTime", [&] { record->holdTimeIs(105); }},
      {"wcSource", [&] { record->wcSourceIs("10.9.9.9"_ip); }},
      {"rxCount", [&] { record->rxCountIs(9); }},
  };
  for (auto const& [name, set] : rows) {
    set();
    EXPECT_THAT(taken(log), ElementsAre(name));
    set();
    EXPECT_THAT(log, IsEmpty()) << name;
  }
  EXPECT_EQ(record->riKey(), key);
  EXPECT_EQ(record->upstreamNeighbor(), "10.0.0.2"_ip);
  EXPECT_EQ(record->sourceFlags(), Packet::sgFlags);
  EXPECT_EQ(record->holdTime(), 105);
  EXPECT_EQ(record->wcSource(), "10.9.9.9"_ip);
  EXPECT_EQ(record->rxCount(), 9u);
}

TEST_F(JoinPruneMessageInfoTest, SettingTheDefaultsOfANewRecordNotifiesNobody) {
  record->riKeyIs({});
  record->upstreamNeighborIs({});
  record->sourceFlagsIs({});
  record->holdTimeIs(210.0);
  record->wcSourceIs({});
  record->rxCountIs(0);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(JoinPruneMessageInfoTest, KeysThatDifferInOnePartAreDifferent) {
  record->riKeyIs(key);
  (void)taken(log);
  record->riKeyIs({"10.0.0.1"_ip, "239.1.1.1"_ip, Dova::IntfId("eth0")});
  EXPECT_THAT(taken(log), ElementsAre("riKey"));
  record->riKeyIs({"::ffff:10.0.0.1"_ip, "239.1.1.1"_ip, Dova::IntfId("eth0")});
  EXPECT_THAT(taken(log), ElementsAre("riKey"));
}

TEST_F(JoinPruneMessageInfoTest, TheCountMovesByWhatItIsTold) {
  EXPECT_EQ(record->rxCountInc(0), 0u);
  EXPECT_THAT(log, IsEmpty());
  EXPECT_EQ(record->rxCountInc(1), 1u);
  EXPECT_THAT(taken(log), ElementsAre("rxCount"));
  record->rxCountIs(4294967295);
  (void)taken(log);
  EXPECT_EQ(record->rxCountInc(1), 0u);
  EXPECT_EQ(record->rxCount(), 0u);
  EXPECT_THAT(log, ElementsAre("rxCount"));
}

TEST_F(JoinPruneMessageInfoTest, ASecondEntryThatIsTheSameMovesOnlyTheCount) {
  receive(key, Packet::sgFlags);
  EXPECT_THAT(taken(log), ElementsAre("upstreamNeighbor", "holdTime", "riKey", "sourceFlags", "rxCount"));
  receive(key, Packet::sgFlags);
  EXPECT_THAT(taken(log), ElementsAre("rxCount"));
  receive(key, Packet::sgRptFlags);
  EXPECT_THAT(log, ElementsAre("sourceFlags", "rxCount"));
}

TEST_F(JoinPruneMessageInfoTest, AFaultyReactorIsToldTheAttributesNumber) {
  recorder->faulty = true;
  receive(key, Packet::sgFlags);
  record->wcSourceIs("10.9.9.9"_ip);
  EXPECT_THAT(log, ElementsAre("upstreamNeighbor", "exception 131", "holdTime", "exception 133", "riKey",
                               "exception 130", "sourceFlags", "exception 132", "rxCount", "exception 135",
                               "wcSource", "exception 134"));
}

TEST_F(JoinPruneMessageInfoTest, ARecordGoesWithItsLastHolder) {
  recorder->isNondestructingIs(true);
  record = nullptr;
  EXPECT_THAT(log, ElementsAre("zero references"));
  EXPECT_FALSE(recorder->notifier());
}

TEST_F(JoinPruneMessageInfoTest, AConstRecordChangesNothing) {
  Vel::Ptr<JoinPruneMessageInfo const> const view = record;
  expectRefused({
      {"riKeyIs", [&] { view->riKeyIs(key); }},
      {"upstreamNeighborIs", [&] { view->upstreamNeighborIs("10.0.0.2"_ip); }},
      {"sourceFlagsIs", [&] { view->sourceFlagsIs(Packet::sgFlags); }},
      {"holdTimeIs", [&] { view->holdTimeIs(105); }},
      {"wcSourceIs", [&] { view->wcSourceIs("10.9.9.9"_ip); }},
      {"rxCountIs", [&] { view->rxCountIs(9); }},
      {"rxCountInc", [&] { view->rxCountInc(1); }},
      {"rxCountDec", [&] { view->rxCountDec(1); }},
  });
  EXPECT_EQ(inText(static_cast<JoinPruneMessageInfo const*>(record.get())),
            "(unknown,unknown), Flags: none, Intf: , Neighbor: unknown, Holdtime: 210");
  EXPECT_EQ(record->rxCount(), 0u);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(JoinPruneMessageInfoTest, ARecordHasAText) {
  record->riKeyIs({"10.0.0.1"_ip, "239.1.1.1"_ip, Dova::IntfId("eth0")});
  record->sourceFlagsIs(Packet::sgRptFlags);
  record->upstreamNeighborIs("10.0.0.2"_ip);
  record->holdTimeIs(0.5);
  JoinPruneMessageInfo const* info = record.get();
  EXPECT_EQ(inText(info), "(10.0.0.1,239.1.1.1), Flags: SR, Intf: eth0, Neighbor: 10.0.0.2, Holdtime: 0.5");
  info = nullptr;
  EXPECT_EQ(inText(info), "null");
}

TEST_F(JoinPruneMessageInfoTest, AHoldTimeThatIsNoDurationIsRefused) {
  EXPECT_THROW(record->holdTimeIs(std::numeric_limits<double>::quiet_NaN()), Vel::InvalidArgumentException);
  EXPECT_THROW(record->holdTimeIs(-5), Vel::InvalidArgumentException);
  EXPECT_THROW(record->attributeIs("holdTime", "-5"), Vel::InvalidArgumentException);
  EXPECT_EQ(record->holdTime(), 210.0);
  EXPECT_THAT(log, IsEmpty());
  record->holdTimeIs(0);
  EXPECT_EQ(record->holdTime(), 0.0);
}

TEST_F(JoinPruneMessageInfoTest, AttributesAreReadAndSetByName) {
  record->attributeIs("upstreamNeighbor", "2001:db8::1");
  record->attributeIs("sourceFlags", "SWR");
  record->attributeIs("holdTime", "105.5");
  record->attributeIs("wcSource", "10.9.9.9");
  record->attributeIs("rxCount", "7");
  EXPECT_THAT(taken(log), ElementsAre("upstreamNeighbor", "sourceFlags", "holdTime", "wcSource", "rxCount"));
  EXPECT_EQ(record->sourceFlags(), Packet::wildcardFlags);
  EXPECT_EQ(record->attribute("holdTime"), "105.5");
  record->riKeyIs(key);
  EXPECT_EQ(record->attribute("riKey"), "(10.0.0.1,239.1.1.1)");
  (void)taken(log);
  for (auto const& [name, text] :
       std::vector<std::pair<char const*, char const*>>{{"riKey", "x"},
                                                        {"upstreamNeighbor", "10.0.0"},
                                                        {"sourceFlags", "RS"},
                                                        {"holdTime", "nan"},
                                                        {"rxCount", "-1"},
                                                        {"rxcount", "1"}})
    EXPECT_THROW(record->attributeIs(name, text), Vel::RangeException) << name;
  EXPECT_THAT(log, IsEmpty());
}

}  // namespace
}  // namespace Routing::Pim
