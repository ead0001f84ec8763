// SPDX-License-Identifier: Apache-2.0
// Received messages: taken apart, entry by entry, into the two records.
#include <exception>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/joinprune/private/JoinPruneTrace.h"
#include "pim/joinprune/private/RecordAccess.h"
#include "pim/model/packet/GroupEntries.h"
#include "pim/model/private/ModelAccess.h"

namespace Routing::Pim {

using RecordAccess = EngineAccess<JoinPruneMessageInfo>;

JoinPruneMessageSm::VelRxMessageInfo::VelRxMessageInfo(Vel::Ptr<IO::MessageInfo> const& channel,
                                                       JoinPruneMessageSm* sm)
    : Owned(sm) {
  Owned::notifierIs(channel);
}

void JoinPruneMessageSm::VelRxMessageInfo::notifierIs(Vel::Ptr<IO::MessageInfo> const& channel) {
  if (channel == notifier()) return;
  Vel::MemoryHold const memory(this);
  Owned::notifierIs(channel);
  if (channel && hasNotificationActive()) onCount();
}

void JoinPruneMessageSm::VelRxMessageInfo::onCount() {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm || isZombie()) return;
  Vel::MemoryHold const machineMemory(sm);
  sm->catchUp();
  if (!sm->retired()) sm->handleRxMessage();
}

namespace {

constexpr char const* handler = "handleRxMessage";

// How a kind is written behind "Join" or "Prune".
std::string_view shortForm(EntryKind kind) {
  return isWildcard(kind) ? ", WC" : flagsOf(kind) & EntryFlags::rpt ? ", RPT" : "";
}

// One message, on its way into the records. Each write notifies, so the order is what observers rely on. They
// may drop the machine in between.
class Receiver {
 public:
  Receiver(JoinPruneMessageSm& sm, Packet::JoinPruneData const& data)
      : sm_(sm), data_(data), join_{sm.rxJoin(), "Join"}, prune_{sm.rxPrune(), "Prune"} {}

  // What a filter or RP hash that throws was asked about is not recorded; the rest of the message is, and the
  // first error is thrown in the end.
  void receive() {
    for (auto i = data_.joinPruneGroupDataIterator(); i && !sm_.retired(); ++i) receiveGroup(*i, i->group());
    if (firstError_) std::rethrow_exception(firstError_);
  }

 private:
  // One of the two records.
  struct Record {
    Vel::Ptr<JoinPruneMessageInfo> const info;
    char const* const name;
    bool headerDone = false;  // for the group at hand
  };

  void receiveGroup(Packet::JoinPruneGroupData const& groupData, Dova::IpGenAddr const group) {
    join_.headerDone = prune_.headerDone = false;
    if (!writeUnheard(groupData)) writeSources<EntryKind::sourceJoin>(groupData, group);
    writeSources<EntryKind::sourcePrune>(groupData, group);
    if (sm_.retired()) return;
    // Kept: asked only now, so the (S,G) entries of a denied group are recorded.
    bool denied = false;
    auto const& filter = sm_.joinPruneFilter();
    if (filter && !answered([&] { denied = filter->deny(group); })) denied = true;
    if (denied) return;
    if (Vel::Ptr<Packet::WcSourceData> const wildcard = sm_.retired() ? nullptr : groupData.wcSourceData())
      receiveWildcard(*wildcard, group);
    writeSources<EntryKind::sourceRptJoin>(groupData, group);
    writeSources<EntryKind::sourceRptPrune>(groupData, group);
  }

  void receiveWildcard(Packet::WcSourceData const& wildcard, Dova::IpGenAddr const& group) {
    Dova::IpGenAddr const wcAddress = wildcard.address();
    Dova::IpGenAddr const anySource = Dova::IpGenAddr::zero(wcAddress.af());
    if (!wildcard.join()) {
      // Kept: the RP of a prune is not checked.
      writeEntry(EntryKind::wildcardPrune, anySource, group, &wcAddress);
      return;
    }
    Dova::IpGenAddr rp;
    auto const& rpHash = sm_.rpHashComputeStatus();
    if (rpHash) {
      if (!answered([&] { rp = rpHash->rpHashCompute(group, wcAddress); })) return;
      JOIN_PRUNE_ASSERT_AS("void Routing::Pim::JoinPruneMessageSm::handleRxMessage()",
                           rp.af() != Dova::ipunknown());
    }
    if (rpHash && rp == wcAddress)
      writeEntry(EntryKind::wildcardJoin, anySource, group, &wcAddress);
    else if (!sm_.retired())
      JOIN_PRUNE_TRACE_AS(
          Level::event, &sm_, handler,
          "(), RP (" << rp << ") does not match received RP (" << wcAddress << ") for group " << group);
  }

  // Most groups have sources of one kind, so the others are asked for their number first.
  template <EntryKind kind>
  void writeSources(Packet::JoinPruneGroupData const& groupData, Dova::IpGenAddr const& group) {
    using Sources = Packet::GroupSources<kind>;
    if (Sources::count(groupData) == 0) return;
    for (auto source = Sources::iterator(groupData); source && !sm_.retired(); ++source)
      writeEntry(kind, source.key(), group, nullptr);
  }

  void writeEntry(EntryKind kind, Dova::IpGenAddr const& source, Dova::IpGenAddr const& group,
                  Dova::IpGenAddr const* wcSource) {
    if (sm_.retired()) return;
    Record& record = isJoin(kind) ? join_ : prune_;
    JoinPruneMessageInfo* const info = record.info.get();
    if (info) {
      if (!std::exchange(record.headerDone, true)) {
        info->upstreamNeighborIs(data_.upstreamNeighbor());
        if (sm_.retired()) return;
        info->holdTimeIs(static_cast<double>(data_.holdTime()));
        if (sm_.retired()) return;
      }
      RecordAccess::routeIs(*info, source, group);
      if (sm_.retired()) return;
      info->sourceFlagsIs(Packet::SourceFlags(kind));
      if (sm_.retired()) return;
      if (wcSource) info->wcSourceIs(*wcSource);
      if (sm_.retired()) return;
    }
    JOIN_PRUNE_TRACE_AS(Level::activity, &sm_, handler, "(), " << record.name << shortForm(kind) << info);
    if (info && !sm_.retired()) info->rxCountInc(1);
  }

  // Where no reactor is told of the single entries, those of the usual kind of group are written at once.
  bool writeUnheard(Packet::JoinPruneGroupData const& groupData) {
    if (!join_.info || !RecordAccess::unheard(*join_.info) || !joinPruneIsQuiet()) return false;
    auto const* const sources = EngineAccess<Packet::JoinPruneGroupData>::joinsAlone(groupData);
    if (!sources) return false;
    RecordAccess::joinsAre(*join_.info, data_.upstreamNeighbor(), data_.holdTime(), groupData.group(),
                           *sources);
    return join_.headerDone = true;
  }

  template <class Ask>
  bool answered(Ask const& ask) {
    try {
      ask();
      return true;
    } catch (...) {
      if (!firstError_) firstError_ = std::current_exception();
      return false;
    }
  }

  JoinPruneMessageSm& sm_;
  Packet::JoinPruneData const& data_;
  Record join_, prune_;
  std::exception_ptr firstError_;
};

}  // namespace

void JoinPruneMessageSm::handleRxMessage() {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(Level::entry, this, "()");
  if (retired()) return;
  Vel::Ptr<IO::MessageInfo> const channel = notifierOf(rxMessageInfo_);
  Vel::Ptr<Packet::JoinPruneMessage> const message = channel ? channel->joinPruneMessage() : nullptr;
  Vel::Ptr<Packet::JoinPruneData> const data = message ? message->joinPruneData() : nullptr;
  if (data) Receiver(*this, *data).receive();
}

}  // namespace Routing::Pim
