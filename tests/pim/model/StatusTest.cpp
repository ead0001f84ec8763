// SPDX-License-Identifier: Apache-2.0
// Interfaces, neighbors, the packet manager and the RP hash.
#include "pim/model/Status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pim/model/RpHashComputeStatus.h"
#include "pim/model/io/PamManager.h"
#include "tests/pim/model/Recorder.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StatusRecorder final : public Status::NotifieeConst {
 public:
  explicit StatusRecorder(Log& log) : log_(log) {}
  void onPimIntf(Dova::IntfId id) override { log_.push_back("intf " + id.name()); }
  void onPimNeighbor(Dova::IpGenAddr address) override { log_.push_back("neighbor " + toText(address)); }

 private:
  Log& log_;
};

class IntfRecorder final : public Intf::NotifieeConst {
 public:
  explicit IntfRecorder(Log& log) : log_(log) {}
  void onUsedAddressWithMask() override { log_.push_back("used address"); }
  void onJoinPruneHoldTime() override { log_.push_back("hold time"); }
  void onJoinPruneInterval() override { log_.push_back("interval"); }
  void onUsedOverrideIntervalInSeconds() override { log_.push_back("override interval"); }

 private:
  Log& log_;
};

class StatusTest : public testing::Test {
 protected:
  StatusTest() { recorder->notifierIs(status); }

  Log log;
  Vel::Ptr<Status> status = Vel::create<Status>();
  Vel::Ptr<StatusRecorder> recorder = Vel::create<StatusRecorder>(log);
  Dova::IntfId const eth0{"eth0"}, eth1{"eth1"};
};

TEST_F(StatusTest, InterfacesAreMadeFoundPutAndRemoved) {
  auto const made = status->pimIntfIs(eth0);
  EXPECT_TRUE(status->pimIntfIs(eth0) == made);
  EXPECT_TRUE(status->pimIntf(eth0) == made);
  EXPECT_TRUE(status->pimIntf(eth1) == nullptr);
  EXPECT_THAT(taken(log), ElementsAre("intf eth0"));
  auto const other = Vel::create<Intf>(eth0);
  status->pimIntfIs(other);
  EXPECT_TRUE(status->pimIntf(eth0) == other);
  EXPECT_THAT(taken(log), ElementsAre("intf eth0"));
  status->pimIntfIs(eth0, nullptr);
  EXPECT_EQ(status->pimIntfCount(), 0u);
  EXPECT_THAT(taken(log), ElementsAre("intf eth0"));
}

TEST_F(StatusTest, ANullInterfaceIsRefused) {
  try {
    status->pimIntfIs(Vel::Ptr<Intf>());
    ADD_FAILURE() << "nothing was thrown";
  } catch (Vel::InvalidArgumentException const& error) {
    EXPECT_STREQ(error.what(),
                 "null _pimIntf parameter to mutator for Routing::Pim::Status::pimIntf not allowed\"");
  }
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(StatusTest, ANeighborIsMadeOnItsInterfaceAndFoundThere) {
  auto const intf = status->pimIntfIs(eth0);
  (void)taken(log);
  auto const made = status->pimNeighborIs("10.0.0.2"_ip, intf);
  EXPECT_EQ(made->address(), "10.0.0.2"_ip);
  EXPECT_TRUE(made->intf() == intf.get());
  EXPECT_TRUE(status->pimNeighborIs("10.0.0.2"_ip, intf) == made);
  EXPECT_THAT(taken(log), ElementsAre("neighbor 10.0.0.2"));
  EXPECT_TRUE(status->pimNeighborDel("10.0.0.2"_ip) == made);
  EXPECT_THAT(taken(log), ElementsAre("neighbor 10.0.0.2"));
}

TEST_F(StatusTest, ANeighborThatIsThereOnAnotherInterfaceIsRefused) {
  auto const intf = status->pimIntfIs(eth0), other = status->pimIntfIs(eth1);
  auto const made = status->pimNeighborIs("10.0.0.2"_ip, intf);
  (void)taken(log);
  try {
    status->pimNeighborIs("10.0.0.2"_ip, other);
    ADD_FAILURE() << "nothing was thrown";
  } catch (Vel::RangeException const& error) {
    EXPECT_EQ(error.what(),
              "Reinstantiating the pointer interface where constructor parameter attribute _intf has a "
              "different value of " +
                  inText(other) + " than the current value of " + inText(intf));
  }
  EXPECT_TRUE(status->pimNeighbor("10.0.0.2"_ip) == made);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(StatusTest, ANeighborThatMovedIsPutAsAnotherOne) {
  status->pimNeighborIs("10.0.0.2"_ip, status->pimIntfIs(eth0));
  (void)taken(log);
  auto const moved = Vel::create<Neighbor>("10.0.0.2"_ip, status->pimIntfIs(eth1));
  (void)taken(log);
  status->pimNeighborIs(moved);
  EXPECT_TRUE(status->pimNeighbor("10.0.0.2"_ip) == moved);
  EXPECT_THAT(log, ElementsAre("neighbor 10.0.0.2"));
}

TEST_F(StatusTest, WhenTheStatusGoesNeighborsGoBeforeInterfaces) {
  status->pimNeighborIs("10.0.0.2"_ip, status->pimIntfIs(eth0));
  recorder->isNondestructingIs(true);
  (void)taken(log);
  status = nullptr;
  EXPECT_THAT(log, ElementsAre("neighbor 10.0.0.2", "intf eth0"));
}

TEST_F(StatusTest, AConstStatusChangesNothing) {
  auto const intf = status->pimIntfIs(eth0);
  status->pimNeighborIs("10.0.0.2"_ip, intf);
  auto const intfAt = status->pimIntfIterator();
  auto const neighborAt = status->pimNeighborIterator();
  (void)taken(log);
  Vel::Ptr<Status const> const view = status;
  auto const neighbor = Vel::create<Neighbor>("10.0.0.3"_ip, intf);
  expectRefused({
      {"pimIntfIs", [&] { view->pimIntfIs(eth1); }},
      {"newPimIntf", [&] { view->newPimIntf(eth1); }},
      {"pimIntfIs of an interface", [&] { view->pimIntfIs(Vel::create<Intf>(eth1)); }},
      {"pimIntfIs of null", [&] { view->pimIntfIs(eth0, nullptr); }},
      {"pimIntfDel", [&] { view->pimIntfDel(eth0); }},
      {"pimIntfDel of an iterator", [&] { view->pimIntfDel(intfAt); }},
      {"pimIntfDelAll", [&] { view->pimIntfDelAll(); }},
      {"pimIntfNotify", [&] { view->pimIntfNotify(eth0); }},
      {"pimIntfNotifyImmediate", [&] { view->pimIntfNotifyImmediate(); }},
      {"pimNeighborIs", [&] { view->pimNeighborIs("10.0.0.3"_ip, intf); }},
      {"pimNeighborIs of a neighbor", [&] { view->pimNeighborIs(neighbor); }},
      {"pimNeighborIs under a key", [&] { view->pimNeighborIs("10.0.0.3"_ip, neighbor); }},
      {"pimNeighborDel", [&] { view->pimNeighborDel("10.0.0.2"_ip); }},
      {"pimNeighborDel of an iterator", [&] { view->pimNeighborDel(neighborAt); }},
      {"pimNeighborDelAll", [&] { view->pimNeighborDelAll(); }},
      {"pimNeighborNotify", [&] { view->pimNeighborNotify("10.0.0.2"_ip); }},
      {"pimNeighborNotifyImmediate", [&] { view->pimNeighborNotifyImmediate(); }},
  });
  EXPECT_EQ(view->attribute("pimIntf"), "eth0");
  EXPECT_EQ(view->attribute("pimNeighbor"), "10.0.0.2");
  EXPECT_THAT(log, IsEmpty());
}

class IntfTest : public testing::Test {
 protected:
  IntfTest() { recorder->notifierIs(intf); }

  Log log;
  Vel::Ptr<Intf> intf = Vel::create<Intf>(Dova::IntfId("eth0"));
  Vel::Ptr<IntfRecorder> recorder = Vel::create<IntfRecorder>(log);
};

// RFC 7761, 4.11.
TEST_F(IntfTest, ANewInterfaceHasTheProtocolsDefaults) {
  EXPECT_EQ(intf->intfId(), Dova::IntfId("eth0"));
  EXPECT_EQ(intf->velKey(), Dova::IntfId("eth0"));
  EXPECT_EQ(intf->joinPruneHoldTime(), 210);
  EXPECT_EQ(intf->joinPruneInterval(), 60u);
  EXPECT_EQ(intf->usedOverrideIntervalInSeconds(), 2.5);
  EXPECT_EQ(intf->usedAddressWithMask().ipGenAddr(), Dova::IpGenAddr());
}

TEST_F(IntfTest, EachSettingNotifiesOnceWhenItChanges) {
  for (int i = 0; i < 2; ++i) {
    intf->usedAddressWithMaskIs(Dova::IpGenPrefix("10.0.0.1"_ip, 24));
    intf->joinPruneHoldTimeIs(105);
    intf->joinPruneIntervalIs(30);
    intf->usedOverrideIntervalInSecondsIs(1);
  }
  EXPECT_THAT(taken(log), ElementsAre("used address", "hold time", "interval", "override interval"));
  intf->usedAddressWithMaskIs(Dova::IpGenPrefix("10.0.0.1"_ip, 25));
  EXPECT_THAT(taken(log), ElementsAre("used address"));
  intf->usedAddressWithMaskNotify();
  EXPECT_THAT(taken(log), ElementsAre("used address"));
}

TEST_F(IntfTest, AnOverrideIntervalThatIsNoNumberIsRefused) {
  EXPECT_THROW(intf->usedOverrideIntervalInSecondsIs(std::nan("")), Vel::InvalidArgumentException);
  EXPECT_EQ(intf->usedOverrideIntervalInSeconds(), 2.5);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(IntfTest, SettingsAreReadAndSetByName) {
  EXPECT_EQ(intf->attribute("intfId"), "eth0");
  EXPECT_EQ(intf->attribute("usedAddressWithMask"), "unknown");
  intf->attributeIs("usedAddressWithMask", "10.0.0.1/24");
  intf->attributeIs("joinPruneInterval", "30");
  intf->attributeIs("usedOverrideIntervalInSeconds", "0.5");
  EXPECT_EQ(intf->usedAddressWithMask(), Dova::IpGenPrefix("10.0.0.1"_ip, 24));
  EXPECT_EQ(intf->attribute("usedAddressWithMask"), "10.0.0.1/24");
  EXPECT_EQ(intf->joinPruneInterval(), 30u);
  EXPECT_EQ(intf->usedOverrideIntervalInSeconds(), 0.5);
  EXPECT_THAT(taken(log), ElementsAre("used address", "interval", "override interval"));
  EXPECT_THROW(intf->attributeIs("usedAddressWithMask", "10.0.0.1/33"), Vel::RangeException);
  EXPECT_THROW(intf->attributeIs("intfId", "eth1"), Vel::RangeException);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(IntfTest, AConstInterfaceChangesNothing) {
  Vel::Ptr<Intf const> const view = intf;
  expectRefused({
      {"usedAddressWithMaskIs", [&] { view->usedAddressWithMaskIs({}); }},
      {"usedAddressWithMaskNotify", [&] { view->usedAddressWithMaskNotify(); }},
      {"joinPruneHoldTimeIs", [&] { view->joinPruneHoldTimeIs(1); }},
      {"joinPruneIntervalIs", [&] { view->joinPruneIntervalIs(1); }},
      {"usedOverrideIntervalInSecondsIs", [&] { view->usedOverrideIntervalInSecondsIs(1); }},
  });
  EXPECT_EQ(intf->joinPruneHoldTime(), 210);
  EXPECT_EQ(intf->joinPruneInterval(), 60u);
  EXPECT_THAT(log, IsEmpty());
}

TEST(NeighborTest, ANeighborIsReadByName) {
  auto const intf = Vel::create<Intf>(Dova::IntfId("eth0"));
  auto const neighbor = Vel::create<Neighbor>("10.0.0.2"_ip, intf);
  EXPECT_EQ(neighbor->velKey(), "10.0.0.2"_ip);
  EXPECT_EQ(neighbor->attribute("address"), "10.0.0.2");
  EXPECT_EQ(neighbor->attribute("intf"), inText(intf));
  EXPECT_THROW(neighbor->attributeIs("address", "10.0.0.3"), Vel::RangeException);
}

// --- Packet input and output

class ChannelRecorder final : public IO::MessageInfo::NotifieeConst {
 public:
  explicit ChannelRecorder(Log& log) : log_(log) {}
  void onJoinPruneMessage() override { log_.push_back("message"); }
  void onIntfId() override { log_.push_back("intf"); }
  void onCount() override { log_.push_back("count " + std::to_string(notifier()->count())); }

 private:
  Log& log_;
};

class ManagerRecorder final : public IO::PamManager::NotifieeConst {
 public:
  explicit ManagerRecorder(Log& log) : log_(log) {}
  void onTxMessageInfo() override { log_.push_back(notifier()->txMessageInfo() ? "record" : "no record"); }

 private:
  Log& log_;
};

TEST(MessageInfoTest, RaisingTheCountCallsBeforeItReturns) {
  Log log;
  auto const channel = Vel::create<IO::MessageInfo>();
  auto const recorder = Vel::create<ChannelRecorder>(log);
  recorder->notifierIs(channel);
  EXPECT_EQ(channel->countInc(0), 0u);
  EXPECT_THAT(log, IsEmpty());
  EXPECT_EQ(channel->countInc(1), 1u);
  EXPECT_THAT(log, ElementsAre("count 1"));
  EXPECT_EQ(channel->countInc(2), 3u);
  EXPECT_THAT(log, ElementsAre("count 1", "count 3"));
  channel->countIs(4294967295);
  EXPECT_EQ(channel->countInc(1), 0u);
}

TEST(MessageInfoTest, MessageAndInterfaceNotifyWhenTheyChange) {
  Log log;
  auto const channel = Vel::create<IO::MessageInfo>();
  auto const recorder = Vel::create<ChannelRecorder>(log);
  recorder->notifierIs(channel);
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  for (int i = 0; i < 2; ++i) {
    channel->joinPruneMessageIs(message);
    channel->intfIdIs(Dova::IntfId("eth0"));
  }
  EXPECT_THAT(log, ElementsAre("message", "intf"));
  EXPECT_TRUE(channel->joinPruneMessage() == message);
  EXPECT_EQ(channel->attribute("intfId"), "eth0");
}

TEST(MessageInfoTest, AConstChannelChangesNothing) {
  auto const channel = Vel::create<IO::MessageInfo>();
  Vel::Ptr<IO::MessageInfo const> const view = channel;
  expectRefused({
      {"joinPruneMessageIs", [&] { view->joinPruneMessageIs(nullptr); }},
      {"intfIdIs", [&] { view->intfIdIs(Dova::IntfId("eth0")); }},
      {"countIs", [&] { view->countIs(1); }},
      {"countInc", [&] { view->countInc(1); }},
      {"countDec", [&] { view->countDec(1); }},
  });
  EXPECT_EQ(channel->count(), 0u);
}

TEST(PamManagerTest, TheTransmitRecordIsMadeOnceAndRemoved) {
  Log log;
  auto const manager = Vel::create<IO::PamManager>();
  auto const recorder = Vel::create<ManagerRecorder>(log);
  recorder->notifierIs(manager);
  EXPECT_TRUE(manager->txMessageInfo() == nullptr);
  manager->txMessageInfoDel();
  EXPECT_THAT(log, IsEmpty());
  auto const made = manager->txMessageInfoIs();
  ASSERT_TRUE(made);
  EXPECT_TRUE(manager->txMessageInfoIs() == made);
  EXPECT_TRUE(manager->txMessageInfo() == made);
  EXPECT_THAT(taken(log), ElementsAre("record"));
  manager->txMessageInfoDel();
  EXPECT_TRUE(manager->txMessageInfo() == nullptr);
  EXPECT_THAT(log, ElementsAre("no record"));
}

TEST(PamManagerTest, AConstManagerChangesNothing) {
  auto const manager = Vel::create<IO::PamManager>();
  auto const record = manager->txMessageInfoIs();
  Vel::Ptr<IO::PamManager const> const view = manager;
  expectRefused({
      {"txMessageInfoIs", [&] { view->txMessageInfoIs(); }},
      {"txMessageInfoIs of null", [&] { view->txMessageInfoIs(nullptr); }},
      {"txMessageInfoDel", [&] { view->txMessageInfoDel(); }},
  });
  EXPECT_TRUE(manager->txMessageInfo() == record);
}

TEST(RpHashComputeStatusTest, WithoutAnRpSetTheAnswerIsTheOneOfTheMessage) {
  auto const status = Vel::create<RpHashComputeStatus>();
  EXPECT_EQ(status->rpHashCompute("239.1.1.1"_ip, "10.9.9.9"_ip), "10.9.9.9"_ip);
}

}  // namespace
}  // namespace Routing::Pim
