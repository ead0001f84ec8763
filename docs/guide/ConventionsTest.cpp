// SPDX-License-Identifier: Apache-2.0
// What docs/conventions.md shows: each piece between two marks like `// [entity]` is there as it is here, and
// what is said about it is tested below. docs/snippets.py --write takes changes over into the page.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "pim/joinprune/JoinPruneMessageSm.h"

using namespace Routing::Pim;
using Dova::IpGenAddr;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// [entity]
// A candidate RP.
class Candidate final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId { addressId = Vel::firstAttributeId, priorityId };

  class NotifieeConst : public Vel::ReactorOn<Candidate> {
   public:
    virtual void onPriority() { handleNotification(priorityId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, Candidate>;

  explicit Candidate(IpGenAddr const& address) : address_(address) {}

  // A constructor parameter: neither setter nor callback.
  VEL_FIXED(IpGenAddr, address);

  // The lowest value wins.
  VEL_VALUE(U32, priority, Priority, 192);

 public:                                                // each macro ends with its private member
  IpGenAddr const& velKey() const { return address_; }  // makes it an element of a collection
  Vel::AttributeTable const& attributeTable() const override {
    using Self = Candidate;
    static Vel::AttributeTable const table{VEL_ROW_FIXED(address), VEL_ROW(priority)};
    return table;
  }
};
// [entity]

// [collection]
class RpSet final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId { candidateId = Vel::firstAttributeId };

  class NotifieeConst : public Vel::ReactorOn<RpSet> {
   public:
    virtual void onCandidate(IpGenAddr) {}                      // the element of this key changed
    virtual void onCandidatevelImmediate() {}                   // only from candidateNotifyImmediate()
    virtual void onCandidate() { handleDefault("candidate"); }  // after each onCandidate(key)
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, RpSet>;

  VEL_ENTITIES(IpGenAddr, Candidate, candidate, Candidate);

 protected:
  void doTeardown() override { candidateDelAll(); }  // the last chance to tell the reactors
};
// [collection]

// [reactor]
class Watcher final : public RpSet::NotifieeConst {
 public:
  std::vector<std::string> seen;

 private:
  void onCandidate(IpGenAddr address) override {
    auto const candidate = notifier()->candidate(address);  // null: it was removed
    seen.push_back((candidate ? "+" : "-") + Dova::toText(address));
  }
};
// [reactor]

// [machine]
// Elects the candidate with the lowest priority value.
class ElectionSm final : public Vel::Machine {
 public:
  enum Attribute : Vel::AttributeId { electedId = Vel::firstAttributeId, electionsId };

  class NotifieeConst : public Vel::ReactorOn<ElectionSm> {
   public:
    virtual void onElected() { handleNotification(electedId); }
    virtual void onElections() { handleNotification(electionsId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, ElectionSm>;

  // A nested reactor: it holds its notifier, and a plain pointer back to the machine.
  class VelRpSet final : public RpSet::NotifieeConst {
   public:
    VelRpSet(Vel::Ptr<RpSet const> const& rpSet, ElectionSm* sm) : sm_(sm) { notifierIs(rpSet); }
    void velOwnerDel() { sm_ = nullptr; }

   private:
    void onCandidate() override {
      if (sm_) sm_->handleCandidate();
    }
    ElectionSm* sm_;
  };

  VEL_VALUE(IpGenAddr, elected, Elected);
  VEL_COUNTER(elections, Elections);

 public:
  void handleInitialized() override {
    if (start()) handleCandidate();
  }

 protected:
  void doTeardown() override {  // the last reference was dropped
    retire();
    rpSet_->velDoZombieReactors(true);  // first no more callbacks,
    rpSet_->velOwnerDel();              // then no way back
  }
  void velVisitReactors(ReactorVisitor const& visit) override { visit(*rpSet_); }

 private:
  friend Vel::Ptr<ElectionSm> electionSmFactory(Vel::Ptr<RpSet const> rpSet);
  explicit ElectionSm(Vel::Ptr<RpSet const> const& rpSet) : rpSet_(Vel::create<VelRpSet>(rpSet, this)) {}

  void handleCandidate() {
    Vel::MemoryHold const memory(this);  // what is called below may drop this machine
    Vel::Ptr<Candidate const> best;
    for (auto i = rpSet_->notifier()->candidateIterator(); i; ++i)
      if (!best || std::pair(i->priority(), i->address()) < std::pair(best->priority(), best->address()))
        best = i.ptr();
    electedIs(best ? best->address() : IpGenAddr());  // calls the reactors of `elected`
    if (retired()) return;                            // one of them dropped this machine
    electionsInc(1);
  }

  Vel::Ptr<VelRpSet> const rpSet_;
};

Vel::Ptr<ElectionSm> electionSmFactory(Vel::Ptr<RpSet const> rpSet) {
  auto const sm = Vel::Ptr<ElectionSm>::owning(new ElectionSm(rpSet));
  sm->handleInitialized();  // not in the constructor: it calls out
  return sm;
}
// [machine]

IpGenAddr const first("10.0.0.1"), second("10.0.0.2"), third("10.0.0.3");

class Conventions : public testing::Test {
 protected:
  Vel::Ptr<RpSet> rpSet = Vel::create<RpSet>();
};

TEST_F(Conventions, AnEntityOfThePageIsSetAndReadByName) {
  auto const candidate = Vel::create<Candidate>(first);
  candidate->attributeIs("priority", "7");
  EXPECT_EQ(candidate->priority(), 7u);
  EXPECT_EQ(candidate->attribute("address"), "10.0.0.1");
  EXPECT_THROW(candidate->attributeIs("address", "10.0.0.2"), Vel::RangeException);
}

TEST_F(Conventions, ACallOfAMutatorThroughAConstPointerIsRefused) {
  Vel::Ptr<Candidate const> const view = Vel::create<Candidate>(first);
  EXPECT_THROW(view->priorityIs(1), Vel::RangeException);
  EXPECT_EQ(view->priority(), 192u);
}

TEST_F(Conventions, AttributeNumbersAreThePlaceInTheClass) {
  EXPECT_EQ(+Candidate::addressId, 130u);
  EXPECT_EQ(+Candidate::priorityId, 131u);
}

TEST_F(Conventions, AReactorOfThePageHearsWhatComesAndGoesAndNothingOfWhatStaysEqual) {
  auto const watcher = Vel::create<Watcher>();
  watcher->notifierIs(rpSet);
  rpSet->candidateIs(first);
  rpSet->candidateIs(first);
  rpSet->candidateDel(first);
  rpSet->candidateDel(first);
  EXPECT_THAT(watcher->seen, ElementsAre("+10.0.0.1", "-10.0.0.1"));
}

TEST_F(Conventions, NewFooTellsNobodyAndRefusesAKeyThatIsThere) {
  auto const watcher = Vel::create<Watcher>();
  watcher->notifierIs(rpSet);
  rpSet->newCandidate(first)->priorityIs(1);
  EXPECT_THAT(watcher->seen, IsEmpty());
  EXPECT_THROW(rpSet->newCandidate(first), Vel::RangeException);
  rpSet->candidateNotify(first);
  EXPECT_THAT(watcher->seen, ElementsAre("+10.0.0.1"));
}

TEST_F(Conventions, AReactorKeepsItsNotifierAndTheNotifierDoesNotKeepTheReactor) {
  auto watcher = Vel::create<Watcher>();
  watcher->notifierIs(rpSet);
  EXPECT_EQ(rpSet->references(), 2u);
  EXPECT_EQ(watcher->references(), 1u);
  watcher = nullptr;
  EXPECT_EQ(rpSet->references(), 1u);
}

TEST_F(Conventions, AnEntityThatGoesTellsTheReactorsThatDoNotKeepItOfItsElements) {
  auto const watcher = Vel::create<Watcher>();
  watcher->isNondestructingIs(true);
  watcher->notifierIs(rpSet);
  rpSet->candidateIs(first);
  rpSet = nullptr;
  EXPECT_THAT(watcher->seen, ElementsAre("+10.0.0.1", "-10.0.0.1"));
  EXPECT_FALSE(watcher->notifier());
}

TEST_F(Conventions, AWalkStandsTheRemovalOfItsOwnElement) {
  for (auto const& address : {first, second, third}) rpSet->candidateIs(address);
  U32 visited = 0;
  for (auto i = rpSet->candidateIterator(); i; ++i, ++visited) rpSet->candidateDel(i);
  EXPECT_EQ(visited, 3u);
  EXPECT_EQ(rpSet->candidateCount(), 0u);
}

TEST_F(Conventions, AMachineOfThePageFollowsItsInput) {
  rpSet->candidateIs(second);
  auto const sm = electionSmFactory(rpSet);
  EXPECT_EQ(sm->elected(), second);
  rpSet->newCandidate(third)->priorityIs(1);
  rpSet->candidateNotify(third);
  EXPECT_EQ(sm->elected(), third);
  rpSet->candidateDelAll();
  EXPECT_EQ(sm->elected(), IpGenAddr());
  EXPECT_EQ(sm->elections(), 4u);
}

TEST_F(Conventions, AMachineOfThePageThatIsSwitchedOffHearsNothing) {
  auto const sm = electionSmFactory(rpSet);
  sm->hasNotificationActiveIs(false);
  rpSet->candidateIs(first);
  EXPECT_EQ(sm->elected(), IpGenAddr());
}

// Drops the machine from inside the callback that it causes.
class Dropper final : public ElectionSm::NotifieeConst {
 public:
  explicit Dropper(Vel::Ptr<ElectionSm>& sm) : sm_(sm) {}
  U32 elections = 0;

 private:
  void onElected() override {
    isNondestructingIs(true);
    sm_ = nullptr;
  }
  void onElections() override { ++elections; }
  Vel::Ptr<ElectionSm>& sm_;
};

TEST_F(Conventions, AMachineOfThePageThatIsDroppedInItsOwnHandlerDoesNothingMore) {
  auto sm = electionSmFactory(rpSet);
  auto const dropper = Vel::create<Dropper>(sm);
  dropper->notifierIs(sm);
  rpSet->candidateIs(first);
  EXPECT_FALSE(sm);
  EXPECT_EQ(dropper->elections, 0u);
  rpSet->candidateIs(second);
}

// Throws at each change.
class Thrower final : public RpSet::NotifieeConst {
 public:
  std::vector<Vel::AttributeId> failed;

 private:
  void onCandidate() override { throw std::runtime_error("no"); }
  void onNotificationException(Vel::AttributeId id) override { failed.push_back(id); }
};

TEST_F(Conventions, WhatACallbackThrowsReachesItsOwnReactorAndTheOthersAreCalled) {
  auto const thrower = Vel::create<Thrower>();
  auto const watcher = Vel::create<Watcher>();
  thrower->notifierIs(rpSet);
  watcher->notifierIs(rpSet);
  EXPECT_NO_THROW(rpSet->candidateIs(first));
  EXPECT_THAT(thrower->failed, ElementsAre(+RpSet::candidateId));
  EXPECT_THAT(watcher->seen, ElementsAre("+10.0.0.1"));
}

}  // namespace
