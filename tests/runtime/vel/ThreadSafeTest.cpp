// SPDX-License-Identifier: Apache-2.0
// Counting by several threads. Also built by itself under TSan; see tests/CMakeLists.txt.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "runtime/vel/Ptr.h"

namespace Vel {
namespace {

// A counted object that notes how it ends.
class CountedThing final : public Counted {
 public:
  explicit CountedThing(std::string& log) : log_(log) {}
  using Counted::zombie;
  using Counted::zombieIs;
  void zeroReferencesIs(bool zero) override { log_ += zero ? "zero " : "revived "; }

 protected:
  ~CountedThing() override { log_ += "destroyed"; }

 private:
  std::string& log_;
};

class ThreadSafeTest : public testing::Test {
 protected:
  ThreadSafeTest() { threadSafeIs(true); }
  ~ThreadSafeTest() override { threadSafeIs(false); }

  // Four threads that take and drop a million times each, and each leaves one reference behind.
  static void takeAndDrop(CountedThing* object, std::vector<std::thread>& threads) {
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([object] {
        object->newRef();
        for (int k = 0; k < 1'000'000; ++k) Ptr<CountedThing> const passing(object);
      });
  }
  static void join(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) thread.join();
    threads.clear();
  }

  std::string log;
  std::vector<std::thread> threads;
};

TEST_F(ThreadSafeTest, FourThreadsThatTakeAndDropLeaveTheCountExact) {
  auto const thing = create<CountedThing>(log);
  takeAndDrop(thing.get(), threads);
  join(threads);
  EXPECT_TRUE(threadSafe());
  EXPECT_EQ(thing->references(), 5u);
  for (int i = 0; i < 4; ++i) thing->deleteRef();
  EXPECT_EQ(thing->references(), 1u);
  EXPECT_EQ(log, "");
}

TEST_F(ThreadSafeTest, TheBitsBesideTheCountDoNotDisturbItWhenTheyAreSwitchedMeanwhile) {
  auto const thing = create<CountedThing>(log);
  takeAndDrop(thing.get(), threads);
  for (int k = 0; k < 1'000'000; ++k) thing->zombieIs(k % 2 == 0);
  thing->zombieIs(true);
  join(threads);
  EXPECT_TRUE(thing->zombie());
  EXPECT_EQ(thing->references(), 5u);
  for (int i = 0; i < 4; ++i) thing->deleteRef();
}

TEST_F(ThreadSafeTest, TheLastOfSeveralThreadsEndsTheObjectOnce) {
  for (int round = 0; round < 100; ++round) {
    log.clear();
    auto thing = create<CountedThing>(log);
    for (int i = 0; i < 2; ++i) threads.emplace_back([mine = thing]() mutable { mine = nullptr; });
    thing = nullptr;
    join(threads);
    ASSERT_EQ(log, "zero destroyed") << "round " << round;
  }
}

}  // namespace
}  // namespace Vel
