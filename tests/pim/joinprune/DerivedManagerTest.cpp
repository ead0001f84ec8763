// SPDX-License-Identifier: Apache-2.0
// An agent's packet manager with an attribute of its own.
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

class CountingManager final : public IO::PamManager {
 public:
  enum Attribute : Vel::AttributeId { bytesId = IO::PamManager::txMessageInfoId + 1 };

  class NotifieeConst : public Vel::ReactorOn<CountingManager> {
   public:
    virtual void onBytes() { handleNotification(bytesId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, CountingManager>;

  VEL_COUNTER(bytes, Bytes);
};

class DerivedManagerTest : public testing::Test, protected World {};

TEST_F(DerivedManagerTest, ItsOwnReactorsAndTheMachinesHearOfWhatTheyKnow) {
  struct BytesLog final : CountingManager::NotifieeConst {
    void onBytes() override { bytes.push_back(notifier()->bytes()); }
    std::vector<U32> bytes;
  };
  struct RecordLog final : IO::PamManager::NotifieeConst {
    void onTxMessageInfo() override { ++records; }
    int records = 0;
  };
  auto const counting = Vel::create<CountingManager>();
  neighbor("10.0.0.2", intf("eth0", "10.0.0.1/24"));
  machine = joinPruneMessageSmFactory(status, filter, pim, rpHash, rxJoin, rxPrune, channel, counting, wheel);
  auto const bytes = Vel::create<BytesLog>();
  bytes->notifierIs(counting);
  auto const records = Vel::create<RecordLog>();
  records->notifierIs(counting);
  counting->bytesInc(20);
  counting->txMessageInfoIs();
  counting->bytesInc(1);
  EXPECT_THAT(bytes->bytes, testing::ElementsAre(20, 21));
  EXPECT_EQ(records->records, 1);
}

}  // namespace
}  // namespace Routing::Pim
