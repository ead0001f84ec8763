// SPDX-License-Identifier: Apache-2.0
// The packet entities: what a message carries and what is pending.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "pim/model/packet/JoinPruneMessage.h"
#include "pim/model/packet/JoinPruneStatus.h"
#include "pim/model/packet/SourceFlags.h"
#include "tests/pim/model/Recorder.h"

namespace Routing::Pim::Packet {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

auto const group = "239.1.1.1"_ip;
auto const otherRp = "10.9.9.9"_ip;

// --- Flags

TEST(SourceFlagsTest, TheThreeKindsOfEntriesHaveTheirBytesAndLetters) {
  EXPECT_EQ(sgFlags, SourceFlags(4));
  EXPECT_EQ(sgRptFlags, SourceFlags(5));
  EXPECT_EQ(wildcardFlags, SourceFlags(7));
  EXPECT_EQ(SourceFlags().value(), 0);
  EXPECT_FALSE(SourceFlags(4) == SourceFlags(5));
  char const* const texts[] = {"none", "R", "W", "WR", "S", "SR", "SW", "SWR"};
  for (U8 value = 0; value < 8; ++value) {
    EXPECT_EQ(inText(SourceFlags(value)), texts[value]);
    SourceFlags parsed(99);
    EXPECT_TRUE(fromText(texts[value], parsed));
    EXPECT_EQ(parsed, SourceFlags(value));
  }
}

TEST(SourceFlagsTest, OtherTextsAreRefused) {
  for (char const* text : {"", "RS", "SS", "s", "SWRX", "None", "S ", "4"}) {
    SourceFlags flags(5);
    EXPECT_FALSE(fromText(text, flags)) << text;
    EXPECT_EQ(flags, SourceFlags(5));
  }
}

TEST(SourceFlagsTest, BitsWithoutALetterCountInComparisonAndDoNotShow) {
  EXPECT_FALSE(SourceFlags(0xf8) == SourceFlags());
  EXPECT_EQ(inText(SourceFlags(0xf8)), "none");
  EXPECT_EQ(inText(SourceFlags(0xfc)), "S");
}

// --- Groups

class GroupRecorder final : public JoinPruneGroupData::NotifieeConst {
 public:
  explicit GroupRecorder(Log& log) : log_(log) {}
  void onJoinedSource(Dova::IpGenAddr s) override { log_.push_back("joined " + toText(s)); }
  void onPrunedSource(Dova::IpGenAddr s) override { log_.push_back("pruned " + toText(s)); }
  void onJoinedRptSource(Dova::IpGenAddr s) override { log_.push_back("joined rpt " + toText(s)); }
  void onPrunedRptSource(Dova::IpGenAddr s) override { log_.push_back("pruned rpt " + toText(s)); }
  void onWcSourceData() override { log_.push_back("wildcard"); }
  void onCollectionNotification(std::string_view name) override { log_.push_back(std::string(name)); }

 private:
  Log& log_;
};

// The four kinds of sources, by name.
struct SourceKind {
  char const* name;
  char const* collection;
  bool (JoinPruneGroupData::*is)(Dova::IpGenAddr);
  bool (JoinPruneGroupData::*del)(Dova::IpGenAddr);
  bool (JoinPruneGroupData::*has)(Dova::IpGenAddr const&) const;
  U32 (JoinPruneGroupData::*count)() const;
};
SourceKind const kinds[] = {
    {"joined", "joinedSource", &JoinPruneGroupData::joinedSourceIs, &JoinPruneGroupData::joinedSourceDel,
     &JoinPruneGroupData::joinedSource, &JoinPruneGroupData::joinedSourceCount},
    {"pruned", "prunedSource", &JoinPruneGroupData::prunedSourceIs, &JoinPruneGroupData::prunedSourceDel,
     &JoinPruneGroupData::prunedSource, &JoinPruneGroupData::prunedSourceCount},
    {"joined rpt", "joinedRptSource", &JoinPruneGroupData::joinedRptSourceIs,
     &JoinPruneGroupData::joinedRptSourceDel, &JoinPruneGroupData::joinedRptSource,
     &JoinPruneGroupData::joinedRptSourceCount},
    {"pruned rpt", "prunedRptSource", &JoinPruneGroupData::prunedRptSourceIs,
     &JoinPruneGroupData::prunedRptSourceDel, &JoinPruneGroupData::prunedRptSource,
     &JoinPruneGroupData::prunedRptSourceCount},
};

class GroupDataTest : public testing::Test {
 protected:
  GroupDataTest() { recorder->notifierIs(data); }

  Log log;
  Vel::Ptr<JoinPruneGroupData> data = Vel::create<JoinPruneGroupData>(group);
  Vel::Ptr<GroupRecorder> recorder = Vel::create<GroupRecorder>(log);
};

TEST_F(GroupDataTest, ANewGroupIsEmptyAndKnowsItsAddress) {
  EXPECT_EQ(data->group(), group);
  EXPECT_EQ(data->velKey(), group);
  EXPECT_TRUE(data->empty());
  EXPECT_EQ(data->routes(), 0u);
  EXPECT_TRUE(data->wcSourceData() == nullptr);
}

TEST_F(GroupDataTest, ASourceIsAddedAndRemovedOnce) {
  auto const source = "10.0.0.1"_ip;
  for (SourceKind const& kind : kinds) {
    SCOPED_TRACE(kind.name);
    std::string const keyed = std::string(kind.name) + " 10.0.0.1";
    EXPECT_FALSE(((*data).*kind.del)(source));
    EXPECT_THAT(taken(log), IsEmpty());
    EXPECT_TRUE(((*data).*kind.is)(source));
    EXPECT_FALSE(((*data).*kind.is)(source));
    EXPECT_THAT(taken(log), ElementsAre(keyed, kind.collection));
    EXPECT_TRUE(((*data).*kind.has)(source));
    EXPECT_EQ(((*data).*kind.count)(), 1u);
    EXPECT_FALSE(data->empty());
    EXPECT_EQ(data->routes(), 1u);
    EXPECT_TRUE(((*data).*kind.del)(source));
    EXPECT_FALSE(((*data).*kind.del)(source));
    EXPECT_THAT(taken(log), ElementsAre(keyed, kind.collection));
    EXPECT_FALSE(((*data).*kind.has)(source));
    EXPECT_TRUE(data->empty());
  }
}

TEST_F(GroupDataTest, TheKindsAreIndependentOfEachOther) {
  auto const source = "10.0.0.1"_ip;
  for (SourceKind const& kind : kinds) ((*data).*kind.is)(source);
  EXPECT_EQ(data->routes(), 4u);
  for (SourceKind const& kind : kinds) {
    ((*data).*kind.del)(source);
    for (SourceKind const& other : kinds) EXPECT_EQ(((*data).*other.has)(source), &other > &kind);
  }
  EXPECT_TRUE(data->empty());
}

TEST_F(GroupDataTest, TheWildcardAloneMakesAGroupNotEmpty) {
  auto const record = Vel::create<WcSourceData>(otherRp, true);
  EXPECT_EQ(record->address(), otherRp);
  EXPECT_TRUE(record->join());
  data->wcSourceDataIs(record);
  data->wcSourceDataIs(record);
  EXPECT_THAT(taken(log), ElementsAre("wildcard"));
  EXPECT_FALSE(data->empty());
  EXPECT_EQ(data->routes(), 1u);
  data->wcSourceDataIs(Vel::create<WcSourceData>(otherRp, true));  // another one that says the same
  EXPECT_THAT(taken(log), ElementsAre("wildcard"));
  EXPECT_EQ(record->references(), 1u);
  data->wcSourceDataDel();
  data->wcSourceDataDel();
  EXPECT_THAT(taken(log), ElementsAre("wildcard"));
  EXPECT_TRUE(data->empty());
}

TEST_F(GroupDataTest, TheCountsAreInsideTheCallbackWhatTheyAreAfterIt) {
  class Counting final : public JoinPruneGroupData::NotifieeConst {
   public:
    void onJoinedSource(Dova::IpGenAddr) override { routes.push_back(notifier()->routes()); }
    void onWcSourceData() override { routes.push_back(notifier()->routes()); }
    std::vector<U32> routes;
  };
  auto const counting = Vel::create<Counting>();
  counting->notifierIs(data);
  data->joinedSourceIs("10.0.0.1"_ip);
  data->wcSourceDataIs(Vel::create<WcSourceData>(otherRp, false));
  data->joinedSourceDel("10.0.0.1"_ip);
  data->wcSourceDataDel();
  EXPECT_THAT(counting->routes, ElementsAre(1, 2, 1, 0));
}

TEST_F(GroupDataTest, PrunedRptSourcesAreWalkedInAscendingOrder) {
  for (char const* source : {"192.168.0.1", "10.0.0.10", "10.0.0.2"})
    data->prunedRptSourceIs(Dova::IpGenAddr(source));
  Log walked;
  for (auto const& source : data->prunedRptSourceIterator()) walked.push_back(toText(source));
  EXPECT_THAT(walked, ElementsAre("10.0.0.2", "10.0.0.10", "192.168.0.1"));
  EXPECT_EQ(data->attribute("prunedRptSource"), "10.0.0.2, 10.0.0.10, 192.168.0.1");
}

TEST_F(GroupDataTest, RoutesAndEmptyAgreeWithPlainSetsUnderRandomOperations) {
  recorder = nullptr;
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    data = Vel::create<JoinPruneGroupData>(group);
    std::set<Dova::IpGenAddr> model[4];
    for (int step = 0; step < 300; ++step) {
      std::size_t const k = random() % 4;
      auto const source = Dova::IpGenAddr::ipv4(static_cast<U32>(random() % 6));
      if (random() % 2 == 0) {
        ASSERT_EQ(((*data).*kinds[k].is)(source), model[k].insert(source).second);
      } else {
        ASSERT_EQ(((*data).*kinds[k].del)(source), model[k].erase(source) == 1);
      }
      if (random() % 4 == 0)
        data->wcSourceDataIs(random() % 2 == 0 ? Vel::create<WcSourceData>(otherRp, true) : nullptr);
      std::size_t routes = data->wcSourceData() ? 1 : 0;
      for (auto const& sources : model) routes += sources.size();
      ASSERT_EQ(data->routes(), routes);
      ASSERT_EQ(data->empty(), routes == 0);
    }
  }
}

TEST_F(GroupDataTest, AConstViewChangesNothing) {
  auto const source = "10.0.0.1"_ip;
  data->joinedSourceIs(source);
  (void)taken(log);
  Vel::Ptr<JoinPruneGroupData const> const view = data;
  auto const at = view->joinedSourceIterator();
  auto const atPrunedRpt = view->prunedRptSourceIterator();
  expectRefused({
      {"joinedSourceIs", [&] { view->joinedSourceIs("10.0.0.2"_ip); }},
      {"joinedSourceDel", [&] { view->joinedSourceDel(source); }},
      {"joinedSourceDel of an iterator", [&] { view->joinedSourceDel(at); }},
      {"joinedSourceDelAll", [&] { view->joinedSourceDelAll(); }},
      {"joinedSourceNotify", [&] { view->joinedSourceNotify(source); }},
      {"joinedSourceNotifyImmediate", [&] { view->joinedSourceNotifyImmediate(); }},
      {"prunedSourceIs", [&] { view->prunedSourceIs(source); }},
      {"prunedSourceDel", [&] { view->prunedSourceDel(source); }},
      {"prunedSourceDelAll", [&] { view->prunedSourceDelAll(); }},
      {"joinedRptSourceIs", [&] { view->joinedRptSourceIs(source); }},
      {"joinedRptSourceDel", [&] { view->joinedRptSourceDel(source); }},
      {"joinedRptSourceDelAll", [&] { view->joinedRptSourceDelAll(); }},
      {"prunedRptSourceIs", [&] { view->prunedRptSourceIs(source); }},
      {"prunedRptSourceDel", [&] { view->prunedRptSourceDel(source); }},
      {"prunedRptSourceDel of an iterator", [&] { view->prunedRptSourceDel(atPrunedRpt); }},
      {"prunedRptSourceDelAll", [&] { view->prunedRptSourceDelAll(); }},
      {"wcSourceDataIs", [&] { view->wcSourceDataIs(Vel::create<WcSourceData>(otherRp, true)); }},
      {"wcSourceDataDel", [&] { view->wcSourceDataDel(); }},
  });
  EXPECT_EQ(data->routes(), 1u);
  EXPECT_THAT(log, IsEmpty());
}

// --- Data of one upstream neighbor, and of all

class DataRecorder final : public JoinPruneData::NotifieeConst {
 public:
  explicit DataRecorder(Log& log) : log_(log) {}
  void onHoldTime() override { log_.push_back("hold time"); }
  void onPeriodic() override { log_.push_back("periodic"); }
  void onJoinPruneGroupData(Dova::IpGenAddr key) override { log_.push_back("group " + toText(key)); }
  void onJoinPruneGroupDatavelImmediate() override { log_.push_back("groups"); }
  void onZeroReferences() override { log_.push_back("zero references"); }

 private:
  Log& log_;
};

class DataTest : public testing::Test {
 protected:
  DataTest() { recorder->notifierIs(data); }

  Log log;
  Vel::Ptr<JoinPruneData> data = Vel::create<JoinPruneData>("10.0.0.2"_ip);
  Vel::Ptr<DataRecorder> recorder = Vel::create<DataRecorder>(log);
};

TEST_F(DataTest, NewDataIsEmptyAndToBeSentOnce) {
  EXPECT_EQ(data->upstreamNeighbor(), "10.0.0.2"_ip);
  EXPECT_EQ(data->velKey(), "10.0.0.2"_ip);
  EXPECT_EQ(data->holdTime(), 0);
  EXPECT_FALSE(data->periodic());
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
}

TEST_F(DataTest, ValuesNotifyWhenTheyChange) {
  data->holdTimeIs(210);
  data->holdTimeIs(210);
  data->periodicIs(true);
  data->periodicIs(true);
  EXPECT_THAT(log, ElementsAre("hold time", "periodic"));
}

TEST_F(DataTest, GroupsAreMadeOnceAndRemoved) {
  auto const made = data->joinPruneGroupDataIs(group);
  EXPECT_TRUE(data->joinPruneGroupDataIs(group) == made);
  EXPECT_EQ(made->group(), group);
  EXPECT_TRUE(data->joinPruneGroupData(group) == made);
  EXPECT_THAT(taken(log), ElementsAre("group 239.1.1.1"));
  EXPECT_TRUE(data->joinPruneGroupDataDel("239.1.1.2"_ip) == nullptr);
  EXPECT_THAT(log, IsEmpty());
  EXPECT_TRUE(data->joinPruneGroupDataDel(group) == made);
  EXPECT_TRUE(data->joinPruneGroupData(group) == nullptr);
  EXPECT_THAT(log, ElementsAre("group 239.1.1.1"));
}

TEST_F(DataTest, AttributesAreSetAndReadByName) {
  data->attributeIs("holdTime", "65535");
  EXPECT_EQ(data->holdTime(), 65535);
  EXPECT_THROW(data->attributeIs("holdTime", "65536"), Vel::RangeException);
  EXPECT_THROW(data->attributeIs("upstreamNeighbor", "10.0.0.3"), Vel::RangeException);
  data->attributeIs("periodic", "true");
  EXPECT_EQ(data->attribute("periodic"), "true");
  EXPECT_EQ(data->attribute("upstreamNeighbor"), "10.0.0.2");
  data->joinPruneGroupDataIs(group);
  EXPECT_EQ(data->attribute("joinPruneGroupData"), "239.1.1.1");
}

TEST_F(DataTest, WhenDataGoesItsWatchersHearOfEachGroupThatGoes) {
  recorder->isNondestructingIs(true);
  data->joinPruneGroupDataIs(group);
  (void)taken(log);
  data = nullptr;
  EXPECT_THAT(log, ElementsAre("zero references", "group 239.1.1.1"));
  EXPECT_FALSE(recorder->notifier());
}

TEST_F(DataTest, AConstViewChangesNothing) {
  data->joinPruneGroupDataIs(group);
  auto const at = data->joinPruneGroupDataIterator();
  (void)taken(log);
  Vel::Ptr<JoinPruneData const> const view = data;
  expectRefused({
      {"holdTimeIs", [&] { view->holdTimeIs(1); }},
      {"periodicIs", [&] { view->periodicIs(true); }},
      {"joinPruneGroupDataIs", [&] { view->joinPruneGroupDataIs("239.1.1.2"_ip); }},
      {"newJoinPruneGroupData", [&] { view->newJoinPruneGroupData("239.1.1.2"_ip); }},
      {"joinPruneGroupDataDel", [&] { view->joinPruneGroupDataDel(group); }},
      {"joinPruneGroupDataDel of an iterator", [&] { view->joinPruneGroupDataDel(at); }},
      {"joinPruneGroupDataDelAll", [&] { view->joinPruneGroupDataDelAll(); }},
      {"joinPruneGroupDataNotify", [&] { view->joinPruneGroupDataNotify(group); }},
      {"joinPruneGroupDataNotifyImmediate", [&] { view->joinPruneGroupDataNotifyImmediate(); }},
  });
  EXPECT_EQ(data->joinPruneGroupDataCount(), 1u);
  EXPECT_EQ(data->holdTime(), 0);
  EXPECT_FALSE(data->periodic());
  EXPECT_THAT(log, IsEmpty());
}

class StatusRecorder final : public JoinPruneStatus::NotifieeConst {
 public:
  explicit StatusRecorder(Log& log) : log_(log) {}
  void onUpJoinPrune(Dova::IpGenAddr key) override { log_.push_back("neighbor " + toText(key)); }

 private:
  Log& log_;
};

TEST(PeriodicStatusTest, AnEntryIsMadeOnceAndRemovedOnce) {
  Log log;
  auto const status = Vel::create<JoinPruneStatus>();
  auto const recorder = Vel::create<StatusRecorder>(log);
  recorder->notifierIs(status);
  auto const neighbor = "10.0.0.2"_ip;
  auto const made = status->upJoinPruneIs(neighbor);
  EXPECT_TRUE(status->upJoinPruneIs(neighbor) == made);
  EXPECT_EQ(made->upstreamNeighbor(), neighbor);
  EXPECT_THAT(taken(log), ElementsAre("neighbor 10.0.0.2"));
  EXPECT_TRUE(status->upJoinPruneDel(neighbor) == made);
  EXPECT_TRUE(status->upJoinPrune(neighbor) == nullptr);
  EXPECT_THAT(taken(log), ElementsAre("neighbor 10.0.0.2"));
  EXPECT_TRUE(status->upJoinPruneDel(neighbor) == nullptr);
  EXPECT_THAT(log, IsEmpty());
}

TEST(PeriodicStatusTest, AConstViewChangesNothing) {
  auto const status = Vel::create<JoinPruneStatus>();
  auto const neighbor = "10.0.0.2"_ip;
  status->upJoinPruneIs(neighbor);
  auto const at = status->upJoinPruneIterator();
  Vel::Ptr<JoinPruneStatus const> const view = status;
  expectRefused({
      {"upJoinPruneIs", [&] { view->upJoinPruneIs("10.0.0.3"_ip); }},
      {"newUpJoinPrune", [&] { view->newUpJoinPrune("10.0.0.3"_ip); }},
      {"upJoinPruneDel", [&] { view->upJoinPruneDel(neighbor); }},
      {"upJoinPruneDel of an iterator", [&] { view->upJoinPruneDel(at); }},
      {"upJoinPruneDelAll", [&] { view->upJoinPruneDelAll(); }},
      {"upJoinPruneNotify", [&] { view->upJoinPruneNotify(neighbor); }},
      {"upJoinPruneNotifyImmediate", [&] { view->upJoinPruneNotifyImmediate(); }},
  });
  EXPECT_EQ(view->attribute("upJoinPrune"), "10.0.0.2");
}

// --- Messages

class MessageRecorder final : public JoinPruneMessage::NotifieeConst {
 public:
  explicit MessageRecorder(Log& log) : log_(log) {}
  void onJoinPruneData() override { log_.push_back("data"); }
  void onReport() override { log_.push_back(inText(notifier()->report())); }

 private:
  Log& log_;
};

TEST(MessageTest, AReportCountsWhatWasSentAndWhatWasLeftOut) {
  JoinPruneMessage::Report const report{1, 2, 3};
  EXPECT_EQ(report.sources, 1u);
  EXPECT_EQ(report.suppressedSources, 2u);
  EXPECT_EQ(report.filteredSources, 3u);
  EXPECT_EQ(report.skipped(), 5u);
  EXPECT_EQ(inText(report), "Sources: 1, Suppressed: 2, Filtered: 3");
  JoinPruneMessage::Report const many{0, 4294967295, 4294967295};
  EXPECT_EQ(many.skipped(), 8589934590u);
  EXPECT_EQ(JoinPruneMessage::Report(), (JoinPruneMessage::Report{0, 0, 0}));
  EXPECT_FALSE((report == JoinPruneMessage::Report{1, 3, 2}));
}

TEST(MessageTest, AMessageIsEmptyUntilItIsGivenDataAndAReport) {
  Log log;
  auto const message = Vel::create<JoinPruneMessage>();
  auto const recorder = Vel::create<MessageRecorder>(log);
  recorder->notifierIs(message);
  EXPECT_TRUE(message->joinPruneData() == nullptr);
  EXPECT_EQ(message->report(), JoinPruneMessage::Report());
  auto const data = Vel::create<JoinPruneData>("10.0.0.2"_ip);
  message->joinPruneDataIs(data);
  message->joinPruneDataIs(data);
  message->reportIs({1, 2, 3});
  message->reportIs({1, 2, 3});
  EXPECT_THAT(log, ElementsAre("data", "Sources: 1, Suppressed: 2, Filtered: 3"));
  EXPECT_EQ(message->attribute("report"), "Sources: 1, Suppressed: 2, Filtered: 3");
}

TEST(MessageTest, AConstViewChangesNothing) {
  auto const message = Vel::create<JoinPruneMessage>();
  Vel::Ptr<JoinPruneMessage const> const view = message;
  expectRefused({
      {"joinPruneDataIs", [&] { view->joinPruneDataIs(Vel::create<JoinPruneData>("10.0.0.2"_ip)); }},
      {"reportIs",
       [&] {
         view->reportIs({1, 2, 3});
       }},
  });
  EXPECT_TRUE(message->joinPruneData() == nullptr);
  EXPECT_EQ(message->report(), JoinPruneMessage::Report());
}

}  // namespace
}  // namespace Routing::Pim::Packet
