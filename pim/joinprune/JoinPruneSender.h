// SPDX-License-Identifier: Apache-2.0
// The three ways in which a neighbor machine sends: triggered, override and periodic. Not part of the
// library's interface; JoinPruneNeighborSm.h is.
//
// Each way is a sender: an object in the machine, with the data set that others fill, a reactor on the set,
// one that follows all of its groups, and a timer. What happens when a source is added or removed is in
// JoinPruneSender.cpp, from the callback to the armed timer.
#pragma once

#include <functional>

#include "pim/entry/EntryKind.h"
#include "pim/joinprune/JoinPrunePeriodicTimerSm.h"
#include "pim/joinprune/detail/NestedReactor.h"
#include "pim/model/packet/JoinPruneData.h"
#include "runtime/zanth/TimerWheel.h"

namespace Routing::Pim {

class JoinPruneNeighborSm;
class JoinPruneSender;
class JoinPruneTimedSender;
struct JoinPruneSenderTexts;

/// The ways to send.
enum class JoinPruneSenderKind : U8 { triggered, override, periodic };

/// Watches which groups a sender's data set has. The sources of one that is added are followed from then on.
class VEL_API JoinPruneDataReactor : public NestedReactor<Packet::JoinPruneData::Notifiee, JoinPruneSender> {
 public:
  using NestedReactor::notifierIs;
  using NestedReactor::onJoinPruneGroupData;

  /// Watches a data set; what is in it is taken up by the machine's start.
  JoinPruneDataReactor(Vel::Ptr<Packet::JoinPruneData> const& data, JoinPruneSender* sender);
  void notifierIs(Vel::Ptr<Packet::JoinPruneData> const& data) override;
  void onJoinPruneGroupData(Dova::IpGenAddr group) override;
  void onJoinPruneGroupDatavelImmediate() override;

  /// The machine, or null once it has let go; not counted.
  JoinPruneNeighborSm* joinPruneNeighborSm() const;
};

/// Watches the sources of one group, or as a sender's follower those of many. For a group that is filled
/// already it does nothing until the next change.
///
/// A source that comes arms the sender's timer or is counted; one that is removed was sent or is no longer
/// wanted. A group that is empty then is removed. Without a machine: nothing.
class VEL_API JoinPruneGroupReactor
    : public NestedReactor<Packet::JoinPruneGroupData::Notifiee, JoinPruneSender> {
 public:
  using NestedReactor::onJoinedRptSource;
  using NestedReactor::onJoinedSource;
  using NestedReactor::onPrunedRptSource;
  using NestedReactor::onPrunedSource;

  /// Watches a group; null for a follower.
  JoinPruneGroupReactor(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData, JoinPruneSender* sender);

  /// The machine, or null once it has let go of this or of the group; not counted.
  JoinPruneNeighborSm* joinPruneNeighborSm() const;
  /// The group under which the machine holds this.
  Dova::IpGenAddr const& velKey() const { return group_; }

  /// An (S,G) join came or went.
  void handleJoinedSource(Dova::IpGenAddr const& source) { onJoinedSource(source); }
  /// The same for an (S,G) prune.
  void handlePrunedSource(Dova::IpGenAddr const& source) { onPrunedSource(source); }
  /// The same for an (S,G,rpt) join.
  void handleJoinedRptSource(Dova::IpGenAddr const& source) { onJoinedRptSource(source); }
  /// The same for an (S,G,rpt) prune.
  void handlePrunedRptSource(Dova::IpGenAddr const& source) { onPrunedRptSource(source); }
  /// The same for the (*,G) entry.
  void handleWcSource() { onWcSourceData(); }

  void onJoinedSource(Dova::IpGenAddr source) override;
  void onPrunedSource(Dova::IpGenAddr source) override;
  void onJoinedRptSource(Dova::IpGenAddr source) override;
  void onPrunedRptSource(Dova::IpGenAddr source) override;
  void onWcSourceData() override;

 private:
  friend class JoinPruneSender;
  friend class JoinPrunePeriodicSender;

  // Of the group that has changed: its (*,G) entry is counted.
  bool& wildcardCounted();

  Dova::IpGenAddr const group_;

 protected:
  bool wcSourceSet_ = false;  ///< Periodic: the (*,G) entry is counted.
};

/// Walks the group reactors of a sender, as the reactors of their own class.
template <class View>
using JoinPruneGroupReactorIterator = Vel::EntityIterator<Dova::IpGenAddr, JoinPruneGroupReactor, View>;

/// The timer of a sender that sends once.
class VEL_API JoinPruneTimer : public NestedReactor<Zanth::TimerWheel::Notifiee, JoinPruneTimedSender> {
 public:
  /// On a wheel, not armed.
  JoinPruneTimer(Vel::Ptr<Zanth::TimerWheel> const& wheel, JoinPruneTimedSender* sender);
  /// The machine, or null once it has let go; not counted.
  JoinPruneNeighborSm* joinPruneNeighborSm() const;
  void onTime() override;
};

/// What the three have in common: a data set, and what watches its groups. Lives as long as its machine, and
/// holds the machine's memory while it calls out.
///
/// A group of the set is watched by the one follower, which needs no memory for it. It is given a
/// reactor of its own when somebody asks for that, in the place and the state of the follower, so that
/// no caller can tell that it has not been there before.
class JoinPruneSender {
 public:
  /// Which of the three.
  using Kind = JoinPruneSenderKind;
  /// Reactors by group.
  using Groups = Vel::EntityMap<Dova::IpGenAddr, JoinPruneGroupReactor>;
  /// What a group reactor watches.
  using GroupData = Packet::JoinPruneGroupData;

  /// Of a machine, which outlives it.
  JoinPruneSender(JoinPruneNeighborSm& sm, Kind kind);
  JoinPruneSender(JoinPruneSender const&) = delete;
  JoinPruneSender& operator=(JoinPruneSender const&) = delete;

  /// The machine.
  JoinPruneNeighborSm& machine() const { return sm_; }
  /// Which of the three it is.
  Kind kind() const { return kind_; }

  /// The reactor on the data set; null without one.
  Vel::Ptr<JoinPruneDataReactor> const& dataReactor() const { return dataReactor_; }
  /// Sets it, once; the machine makes it.
  void dataReactorIs(Vel::Ptr<JoinPruneDataReactor> const& reactor);
  /// What is sent, or null.
  Vel::Ptr<Packet::JoinPruneData> data() const { return notifierOf(dataReactor_); }

  /// A source of a group was added or removed.
  virtual void handleSource(JoinPruneGroupReactor& reactor, EntryKind kind,
                            Dova::IpGenAddr const& source) = 0;
  /// The (*,G) entry of a group was set or removed.
  virtual void handleWildcard(JoinPruneGroupReactor& reactor) = 0;

  /// The reactors of the groups, by group. Those that are missing are made: std::bad_alloc.
  Groups const& groups() const;
  /// The reactor of a group, or null. Made if it is missing: std::bad_alloc.
  JoinPruneGroupReactor* find(Dova::IpGenAddr const& group) const;
  /// How many groups are watched; O(1).
  U32 groupCount() const { return own_.size() + (follower_ ? follower_->references() - 1 : 0); }
  /// Finds the group's reactor, points it at the group data, or makes it; tells the machine's reactors.
  Vel::Ptr<JoinPruneGroupReactor> groupDataIs(Vel::Ptr<GroupData> const& groupData);
  /// Makes it, silently. One that is there throws RangeException.
  Vel::Ptr<JoinPruneGroupReactor> newGroupData(Vel::Ptr<GroupData> const& groupData);
  /// Unhooks and removes it. The removed one, or null.
  Vel::Ptr<JoinPruneGroupReactor> groupDataDel(Dova::IpGenAddr const& group);
  /// The same for all that are there now.
  void groupDataDelAll();

  /// Watches a group of the data set from now on; tells the machine's reactors, if that is new.
  void follow(GroupData& group);
  /// A group has left the data set: the reverse.
  void leave(Dova::IpGenAddr const& group);
  /// Brings what is watched into line with the data.
  void reconcile();
  /// Whether a reactor that is being called still watches its group for the machine.
  bool concerns(JoinPruneGroupReactor const& reactor) const;
  /// Lets go of all reactors, of a machine that is retired. `held`: somebody can still look at it.
  virtual void retire(bool held);
  /// Visits the reactor on the data set and those of the groups.
  virtual void visitReactors(std::function<void(Vel::Reactor&)> const& visit);

 protected:
  ~JoinPruneSender() = default;

  /// How it is named in traces and ring messages.
  JoinPruneSenderTexts& texts() const;
  /// Whether the group is followed, without a reactor of its own.
  bool follows(GroupData const& group) const { return follower_ && group.velFollower() == follower_.get(); }
  /// The reactors that were asked for, or null; nothing is made.
  JoinPruneGroupReactor* own(Dova::IpGenAddr const& group) const { return own_.find(group); }
  /// If nothing is left in the group, takes it out of the data set, which ends the watch.
  void retireGroup(JoinPruneGroupReactor& reactor, char const* handler, bool traced);

 private:
  JoinPruneGroupReactor* makeOwn(GroupData& group) const;
  GroupData* leaving(Dova::IpGenAddr const& group) const;

  JoinPruneNeighborSm& sm_;
  Kind const kind_;
  Vel::Ptr<JoinPruneDataReactor> dataReactor_;
  Vel::Ptr<JoinPruneGroupReactor> follower_;  // held by the groups that it follows, and by nothing else
  mutable Groups own_;                        // the reactors that were asked for
};

/// Triggered and override: sends what is pending once, some time after the first change. What was sent is
/// taken out of the data by who sends it.
class JoinPruneTimedSender final : public JoinPruneSender {
 public:
  /// Of a machine, which outlives it.
  JoinPruneTimedSender(JoinPruneNeighborSm& sm, Kind kind) : JoinPruneSender(sm, kind) {}

  void handleSource(JoinPruneGroupReactor& reactor, EntryKind kind, Dova::IpGenAddr const& source) override;
  void handleWildcard(JoinPruneGroupReactor& reactor) override;
  /// Arms the timer if the group has anything to send.
  void handleGroup(Dova::IpGenAddr const& group);

  /// The timer; null without a wheel.
  Vel::Ptr<JoinPruneTimer> const& timer() const { return timer_; }
  /// Makes it on a wheel; the same wheel is nothing, null removes it.
  void timerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel);
  /// Arms it if it is idle and there is data, and writes the interface's hold time into the data.
  void updateTimer();
  /// Arms it if it is idle, for so many seconds from now.
  void armIn(Seconds delay);
  /// Stops the timer, too.
  void retire(bool held) override;
  /// Visits the timer, too.
  void visitReactors(std::function<void(Vel::Reactor&)> const& visit) override;
  /// Sends, message by message, until there is none left, nothing progresses, or the quantum has passed.
  void handleTimerExpiry();

 private:
  Seconds delay() const;
  Seconds now() const;

  Vel::Ptr<JoinPruneTimer> timer_;
};

/// Periodic: counts what is wanted, by which JoinPrunePeriodicTimerSm sends it again and again.
class JoinPrunePeriodicSender final : public JoinPruneSender {
 public:
  /// Of a machine, which outlives it.
  explicit JoinPrunePeriodicSender(JoinPruneNeighborSm& sm) : JoinPruneSender(sm, Kind::periodic) {}

  void handleSource(JoinPruneGroupReactor& reactor, EntryKind kind, Dova::IpGenAddr const& source) override;
  void handleWildcard(JoinPruneGroupReactor& reactor) override;

  /// The machine of the periodic refresh.
  Vel::Ptr<JoinPrunePeriodicTimerSm> const& timerSm() const { return timerSm_; }
  /// Sets it. The one that was there before, or null.
  Vel::Ptr<JoinPrunePeriodicTimerSm> timerSmIs(Vel::Ptr<JoinPrunePeriodicTimerSm> const& timerSm) {
    return std::exchange(timerSm_, timerSm);
  }

  /// How many entries the data has, as counted source by source, modulo 2^32.
  U32 routes() const { return routes_; }
  /// Sets the count and tells of a change. Of a retired machine: nothing.
  void routesIs(U32 routes);
  /// True once the count at the start is complete. Until then no change of a source moves it.
  bool isCounted() const { return counted_; }
  /// Counts up group by group.
  void countAtStart(Packet::JoinPruneData const& periodic);
  /// Changes of sources move the count from now on.
  void countIsComplete() { counted_ = true; }
  /// Takes the count from the data, with all (*,G) entries that are there: they are not counted again.
  void count();

 private:
  U32 move(int difference);
  void tellOfCount(U32 before);

  Vel::Ptr<JoinPrunePeriodicTimerSm> timerSm_;
  U32 routes_ = 0;
  bool counted_ = false;
};

/// "JoinPruneNeighborSm(...)::@...::Triggered(239.1.1.1)::", by the reactor's sender; "null" for null.
std::ostream& writeGroupForm(std::ostream& os, JoinPruneGroupReactor const* reactor,
                             JoinPruneSenderKind kind);

}  // namespace Routing::Pim
