// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/runtime/vel/Lamp.h"

namespace Vel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Watches two lamps.
class Switchboard final : public Machine {
 public:
  Switchboard(Ptr<Lamp> const& left, Ptr<Lamp> const& right, Log& log)
      : left_(create<Recorder>("left", log)), right_(create<Recorder>("right", log)) {
    left_->notifierIs(left);
    right_->notifierIs(right);
  }
  void handleInitialized() override {}

  using Machine::retire;
  using Machine::start;

  Ptr<Recorder> const& left() const { return left_; }
  Ptr<Recorder> const& right() const { return right_; }

 protected:
  void velVisitReactors(ReactorVisitor const& visit) override {
    visit(*left_);
    visit(*right_);
  }

 private:
  Ptr<Recorder> const left_, right_;
};

class MachineTest : public testing::Test {
 protected:
  Log heard() {
    left->flashesInc(1);
    right->flashesInc(1);
    return taken(log);
  }

  Log log;
  Ptr<Lamp> left = create<Lamp>(), right = create<Lamp>();
  Ptr<Switchboard> board = create<Switchboard>(left, right, log);
};

TEST_F(MachineTest, AMachineAndItsReactorsAreActiveFromConstruction) {
  EXPECT_TRUE(board->hasNotificationActive());
  EXPECT_THAT(heard(), ElementsAre("left: flashes", "right: flashes"));
}

TEST_F(MachineTest, SwitchingAMachineOffSilencesAllItsReactors) {
  board->hasNotificationActiveIs(false);
  EXPECT_FALSE(board->hasNotificationActive());
  EXPECT_THAT(heard(), IsEmpty());
  board->hasNotificationActiveIs(true);
  EXPECT_TRUE(board->hasNotificationActive());
  EXPECT_THAT(heard(), ElementsAre("left: flashes", "right: flashes"));
}

TEST_F(MachineTest, RetiringAMachinesReactorsReachesAllOfThem) {
  board->velDoZombieReactors(true);
  EXPECT_TRUE(board->left()->isZombie());
  EXPECT_TRUE(board->right()->isZombie());
  EXPECT_THAT(heard(), IsEmpty());
  board->velDoZombieReactors(false);
  EXPECT_THAT(heard(), ElementsAre("left: flashes", "right: flashes"));
}

TEST_F(MachineTest, AMachineIsTheOnlyHolderOfItsInputsUntilItGoes) {
  left = nullptr;
  EXPECT_EQ(Lamp::alive, 2);
  board = nullptr;
  EXPECT_EQ(Lamp::alive, 1);
}

TEST_F(MachineTest, AMachineIsRetiredWhenItsLastReferenceIsDroppedAndItsMemoryWaitsForTheHold) {
  auto* const machine = board.get();
  {
    MemoryHold const outer(machine);
    {
      MemoryHold const inner(machine);
      EXPECT_EQ(machine->references(), 1u);
      EXPECT_FALSE(machine->retired());
      board = nullptr;
      EXPECT_TRUE(machine->retired());
      EXPECT_EQ(machine->references(), 0u);
    }
    EXPECT_TRUE(machine->retired());
    EXPECT_EQ(Recorder::alive, 2);
  }
  EXPECT_EQ(Recorder::alive, 0);
}

TEST_F(MachineTest, ARetiredMachineIsRetiredOnceAndForAll) {
  EXPECT_FALSE(board->retired());
  EXPECT_TRUE(board->retire());
  EXPECT_TRUE(board->retired());
  EXPECT_FALSE(board->retire());
  EXPECT_TRUE(board->retired());
}

TEST_F(MachineTest, AMachineStartsOnceAndNotAfterItsRetirement) {
  EXPECT_TRUE(board->start());
  EXPECT_FALSE(board->start());
  auto const other = create<Switchboard>(left, right, log);
  other->retire();
  EXPECT_FALSE(other->start());
}

}  // namespace
}  // namespace Vel
