// SPDX-License-Identifier: Apache-2.0
// One message from a data set. Not part of the library's interface.
#pragma once

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "pim/model/packet/private/GroupWalk.h"
#include "pim/model/private/ModelAccess.h"
#include "pim/speaker/PacketManager.h"
#include "pim/speaker/private/MessageStages.h"
#include "pim/speaker/private/PrunesBeside.h"
#include "runtime/vel/Trace.h"

namespace Routing::Pim::Speaker::Detail {

/// Of the packet manager's trace lines.
inline Vel::TraceHandle& agentTrace() {
  static Vel::TraceHandle& handle = Vel::TraceHandle::find("Pim::Agent");
  return handle;
}

#define AGENT_TRACE(pieces) VEL_TRACE(agentTrace(), Vel::TraceLevel::event, "PacketManager", __func__, pieces)

// What a message is made with, and for whom.
struct Setting {
  Dova::IntfId const& intf;
  JoinPruneFilter const* filter;
  Suppression const& suppression;
  std::size_t room;                           // Bytes that the PIM message may have.
  HeardJoins const* const* heardJoins;        // Of the manager; null: no periodic join is left out.
  JoinPruneStatus const* dataSets = nullptr;  // Where prunes that belong beside a (*,G) join may be.
};

// Makes one message. Changes nothing: what is to be taken out of the data afterwards is noted.
class Composer {
 public:
  Composer(Setting const& setting, Vel::Ptr<Data> const& data)
      : setting_(setting),
        data_(data),
        keepsData_(data->periodic()),
        leavesOut_(keepsData_ && *setting.heardJoins &&
                   (*setting.heardJoins)->anyLeftOut(setting.intf, data->upstreamNeighbor())),
        isPlain_(keepsData_ && !setting.filter && !setting.suppression && !leavesOut_),
        message_(data->upstreamNeighbor(), data->holdTime()),
        family_(message_.family()),
        groupSize_(groupSize(family_)),
        sourceSize_(sourceSize(family_)),
        capacity_((setting.room - message_.encodedSize() - groupSize_) / sourceSize_ - 1),
        used_(message_.encodedSize()) {
    constexpr std::size_t likely = 256;  // more memory is taken when it is needed
    message_.reserve(std::min(likely, capacity_ + 1), std::min(likely, capacity_ + 1));
  }

  // Continues from a position, or from the front.
  void compose(std::optional<Position> const& from) {
    if (from) {
      Vel::Ptr<GroupData> const group = data_->joinPruneGroupData(from->group);
      if (group && !addGroup(group, *from)) return;
      if (!addGroups(behind(from->group))) return;
      // From here on a walk over the front would be another round, except if this one has been over nothing.
      if (report_.sources != 0 || report_.skipped() != 0) return;
    }
    addGroups(EngineAccess<Data>::groups(*data_).first());
  }

  Wire::JoinPrune const& message() const { return message_; }
  // What is left of it names the upstream neighbor and nothing else.
  Wire::JoinPrune takeMessage() { return std::move(message_); }
  MessageReport const& report() const { return report_; }
  // How many (S,G,rpt) prunes had no room beside their (*,G) join.
  U64 prunesLeftOut() const { return prunesLeftOut_; }
  // Where the next message continues; the front if there is none.
  std::optional<Position> const& resume() const { return resume_; }

  // Takes what was sent, filtered and suppressed out of data that is sent once. Each removal calls out.
  void takeOut();

 private:
  struct Leaving {
    Vel::Ptr<GroupData> group;
    Vel::Ptr<Packet::WcSourceData> wildcard;
    std::vector<std::pair<EntryKind, IpGenAddr>> sources;
  };

  // These say whether the message continues. If it does not, resume_ is set.

  // From a place in the table on.
  bool addGroups(EngineAccess<Data>::GroupTable::Place place) {
    EngineAccess<Data>::GroupTable const& groups = EngineAccess<Data>::groups(*data_);
    Packet::GroupWalk walk(*data_, place);
    while (walk) {
      if (addPlainGroup(*walk)) {
        ++walk;
        continue;
      }
      U32 const epoch = groups.epoch();
      Position front;
      front.group = walk->group();
      if (!addGroup(&*walk, front)) return false;
      if (groups.epoch() == epoch)
        ++walk;
      else
        walk = Packet::GroupWalk(*data_, behind(front.group));
    }
    return true;
  }

  EngineAccess<Data>::GroupTable::Place behind(IpGenAddr const& group) const {
    return EngineAccess<Data>::groups(*data_).after(group);
  }

  // The bulk of a refresh: a group of (S,G) joins that are all sent, where no hook is asked. Nothing is
  // called, so nothing needs to be held. What is in any way special is left to addGroup().
  bool addPlainGroup(GroupData const& group) {
    if (!isPlain_ || passedOver_ >= PacketManager::maxPassedOver) return false;
    auto const* const joins = EngineAccess<GroupData>::joinsAlone(group);
    if (!joins) return false;
    std::size_t const size = groupSize_ + joins->size() * sourceSize_;
    if (used_ + size > setting_.room || !message_.joinsAdd(group.group(), *joins)) return false;
    used_ += size;
    report_.sources += joins->size();
    return true;
  }

  bool addGroup(Vel::Ptr<GroupData> group, Position const& from) {
    if (passedOver_ >= PacketManager::maxPassedOver) {
      resume_ = from;
      return false;
    }
    group_ = std::move(group);
    groupFault_ = Wire::groupFault(group_->group(), family_);
    denied_.reset();
    opened_ = leavingOpened_ = false;
    if (!taken_.empty()) taken_.clear();
    here_ = from;
    // Data that is sent once no longer has the prunes that went before a (*,G) join was added. The others
    // must go with it, not ahead of it: the receiver forgets at the join what is not beside it.
    if (!keepsData_ && here_.stage == rptPruneStage && joinsWildcard()) {
      here_.stage = wildcardStage;
      here_.after.reset();
    }
    if (group_->empty()) ++passedOver_;
    for (; here_.stage != stages.size(); ++here_.stage, here_.after.reset()) {
      if (!addStage()) {
        resume_ = here_;
        return false;
      }
    }
    return true;
  }

  bool addStage() {
    return Packet::byEntryKind(
        stages[here_.stage],
        [this](auto sources) { return sources.count(*group_) == 0 || addSources(sources); },
        [this] { return addWildcard(); });
  }

  // The sources of a stage: from its front, or behind a source.
  template <class Sources>
  bool addSources(Sources const& sources) {
    GroupData const& group = *group_;
    EntryKind const kind = sources.kind;
    for (auto source = here_.after ? sources.iteratorAfter(group, *here_.after) : sources.iterator(group);
         source; ++source) {
      if (passedOver_ >= PacketManager::maxPassedOver) return false;
      IpGenAddr const& address = source.key();
      if (!passOver(kind, address)) {
        if (!fits(1)) return false;
        RouteKey const route(address, here_.group);
        if ((kind == EntryKind::sourceJoin && wasHeard(route)) || suppressed(route, kind)) {
          passOverSuppressed();
          leave(kind, address);
        } else {
          take(kind, address);
        }
      }
      here_.after = address;
    }
    return true;
  }

  bool addWildcard();

  // Whether the group has a (*,G) join that can be sent. One that cannot takes no prunes along: a walk that
  // went back to it would never come to the end of very many of them.
  bool joinsWildcard() const {
    Vel::Ptr<Packet::WcSourceData> const wildcard = group_->wcSourceData();
    return wildcard && wildcard->join() && !faultOf(wildcard->address());
  }

  // The prunes that belong beside a (*,G) join of this group, from all data sets for its upstream neighbor.
  PrunesBeside prunesBeside() const {
    PrunesBeside prunes(*group_);
    if (setting_.dataSets) prunes.add(*setting_.dataSets, data_->upstreamNeighbor(), here_.group);
    return prunes;
  }

  // Whether one of them is of another data set, where it stays, and is to go along.
  bool goesAlong(PrunesBeside const& prunes) const {
    return !prunes.isJoined() && !faultOf(prunes.key()) &&
           !taken_.contains({EntryKind::sourceRptJoin, prunes.key()});
  }

  // How many prunes a (*,G) join of this group has beside it. Counted no further than a message can hold.
  std::size_t prunesAlong() const;

  void takePrunesAlong();

  // One of another data set. The report is on this one, and does not count it.
  void addPrune(IpGenAddr const& source) {
    message_.entryAdd(EntryKind::sourceRptPrune, source);
    used_ += sourceSize_;
  }

  // Whether an entry cannot or must not go into this message, whatever room there is; counts it then.
  bool passOver(EntryKind kind, IpGenAddr const& source);

  std::optional<Wire::Reason> faultOf(IpGenAddr const& source) const {
    return groupFault_ ? groupFault_ : Wire::sourceFault(source, family_);
  }

  bool waits(EntryKind kind, IpGenAddr const& source) const {
    return !isJoin(kind) && Packet::hasEntry(*group_, joinOf(kind), source);
  }

  // Asked once for a group in a message, and only if there is something to deny.
  bool denied() {
    if (!denied_) denied_ = setting_.filter && setting_.filter->deny(here_.group);
    return *denied_;
  }

  bool wasHeard(RouteKey const& route) const {
    // Asked again each time: the filter may have ended what answers.
    HeardJoins const* const heardJoins = leavesOut_ ? *setting_.heardJoins : nullptr;
    return heardJoins && heardJoins->isLeftOut(setting_.intf, message_.upstreamNeighbor(), route);
  }

  bool suppressed(RouteKey const& route, EntryKind kind) const {
    return setting_.suppression &&
           setting_.suppression(setting_.intf, message_.upstreamNeighbor(), route, kind);
  }

  void passOverFaulty(RouteKey const& route, EntryKind kind, Wire::Reason fault) {
    ++passedOver_;
    if (keepsData_) ++report_.filteredSources;
    AGENT_TRACE(*this << route << ' ' << text(kind) << " cannot be encoded: " << text(fault));
  }
  void passOverFiltered() {
    ++passedOver_;
    ++report_.filteredSources;
  }
  void passOverSuppressed() {
    ++passedOver_;
    ++report_.suppressedSources;
  }

  bool fits(std::size_t entries) const {
    if (opened_) return used_ + entries * sourceSize_ <= setting_.room;
    return message_.groups().size() < Wire::JoinPrune::maxGroups &&
           used_ + groupSize_ + entries * sourceSize_ <= setting_.room;
  }

  void take(EntryKind kind, IpGenAddr const& source) {
    openGroup();
    message_.entryAdd(kind, source);
    if (setting_.suppression) taken_.emplace(joinOf(kind), source);
    count();
    leave(kind, source);
  }

  void openGroup() {
    if (std::exchange(opened_, true)) return;
    message_.groupAdd(here_.group);
    used_ += groupSize_;
  }

  void count() {
    used_ += sourceSize_;
    ++report_.sources;
  }

  Leaving& leaving() {
    if (!std::exchange(leavingOpened_, true)) leaving_.push_back({group_, nullptr, {}});
    return leaving_.back();
  }
  void leave(EntryKind kind, IpGenAddr const& source) {
    if (!keepsData_) leaving().sources.emplace_back(kind, source);
  }
  void leaveWildcard(Vel::Ptr<Packet::WcSourceData> const& wildcard) {
    if (!keepsData_) leaving().wildcard = wildcard;
  }

  // What trace lines begin with.
  friend std::ostream& operator<<(std::ostream& os, Composer const& composer) {
    return os << composer.setting_.intf << " to " << composer.message_.upstreamNeighbor() << ": ";
  }

  // Fixed at construction.
  Setting const setting_;
  Vel::Ptr<Data> const data_;
  bool const keepsData_;
  bool const leavesOut_;  // Some joins of this message may be left out, since others were heard.
  bool const isPlain_;    // No hook is asked about an entry, and none is taken out of the data.

  // The message so far.
  Wire::JoinPrune message_;
  AddressFamily const family_;
  std::size_t const groupSize_, sourceSize_;
  std::size_t const capacity_;  // Entries beside the first of a message with one group.
  std::size_t used_;
  MessageReport report_;
  U64 prunesLeftOut_ = 0;
  std::vector<Leaving> leaving_;
  U32 passedOver_ = 0;
  std::optional<Position> resume_;

  // The group that the walk is in.
  Vel::Ptr<GroupData> group_;
  std::optional<Wire::Reason> groupFault_;
  std::optional<bool> denied_;
  bool opened_ = false;         // It has a set in the message.
  bool leavingOpened_ = false;  // It has an element in leaving_.
  // What of it is in the message, by the kind of the join: the hook, asked about one entry, may turn another
  // into its opposite.
  std::set<std::pair<EntryKind, IpGenAddr>> taken_;
  Position here_;
};

}  // namespace Routing::Pim::Speaker::Detail
