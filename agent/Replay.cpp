#include "agent/Replay.h"

#include <algorithm>
#include <limits>
#include <tuple>

#include "agent/Conversion.h"

namespace Routing::Pim::Agent {

namespace {

// libpcap reads the interfaces of a file as one.
constexpr std::string_view captureIntf = "capture0";

class RpOptions final : public RpHashComputeStatus {
 public:
  explicit RpOptions(RpTable const& rps) : rps_(rps) {}

  IpGenAddr rpHashCompute(IpGenAddr const& group, IpGenAddr const& rp) override { return rps_.rp(group, rp); }

 private:
  RpTable const rps_;
};

class DenyOptions final : public JoinPruneFilter {
 public:
  explicit DenyOptions(std::vector<IpGenPrefix> const& denied) : denied_(denied) {}

  bool deny(IpGenAddr const& group) const override {
    for (auto const& prefix : denied_) {
      if (prefix.contains(group)) return true;
    }
    return false;
  }

 private:
  std::vector<IpGenPrefix> const denied_;
};

SourceKind kindOf(Packet::SourceFlags flags) {
  if (flags == Packet::wildcardFlags) return SourceKind::wildcard;
  return flags == Packet::sgRptFlags ? SourceKind::sourceRpt : SourceKind::source;
}

// Entries of one model message, of which no two are the same: by group, and in the order that the engine has within a
// group.
void sortEntries(std::span<Entry> entries) {
  auto const rank = [](Entry const& entry) {
    return std::tie(entry.group, entry.kind, entry.record, entry.source);
  };
  std::sort(entries.begin(), entries.end(),
            [&rank](Entry const& a, Entry const& b) { return rank(a) < rank(b); });
}

}  // namespace

// Reads an entry when its count moves: everything else in the record is in place by then.
class Replay::EntryReactor final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  EntryReactor(Record record, std::vector<Entry>& entries) : record_(record), entries_(entries) {}

  void onRxCount() override {
    auto const& info = *notifier();
    Entry entry;
    entry.record = record_;
    entry.kind = kindOf(info.sourceFlags());
    entry.source = info.riKey().source();
    entry.group = info.riKey().group();
    entry.upstreamNeighbor = info.upstreamNeighbor();
    entry.holdTime = static_cast<U16>(info.holdTime());
    entry.flags = info.sourceFlags().value();
    if (entry.kind == SourceKind::wildcard) entry.rp = info.wcSource();
    entries_.push_back(entry);
  }

 private:
  Record const record_;
  std::vector<Entry>& entries_;
};

Replay::Replay(ReplayOptions const& options, Report& report)
    : report_(report),
      pimStatus_(Vel::create<Status>()),
      intf_(pimStatus_->pimIntfIs(Dova::IntfId(captureIntf))),
      rxMessageInfo_(Vel::create<IO::MessageInfo>()),
      joinReactor_(Vel::create<EntryReactor>(Record::join, entries_)),
      pruneReactor_(Vel::create<EntryReactor>(Record::prune, entries_)) {
  auto const rxJoin = joinPruneMessageInfoFactory();
  auto const rxPrune = joinPruneMessageInfoFactory();
  joinReactor_->notifierIs(rxJoin);
  pruneReactor_->notifierIs(rxPrune);
  // A replay only listens: without a packet manager and a timer wheel, nothing is ever sent.
  machine_ = joinPruneMessageSmFactory(joinPruneStatusFactory(), Vel::create<DenyOptions>(options.denied),
                                       pimStatus_, Vel::create<RpOptions>(options.rps), rxJoin, rxPrune,
                                       rxMessageInfo_, nullptr, nullptr);
}

Replay::~Replay() {
  joinReactor_->notifierIs(nullptr);
  pruneReactor_->notifierIs(nullptr);
}

void Replay::frameIs(Frame const& frame) {
  ++totals_.frames;
  expireNeighbors(frame.time);
  auto const datagram = findDatagram(frame.link, frame.bytes);
  if (datagram && datagram->protocol == pimProtocol) pimIs({frame.number, frame.time}, *datagram);
}

// A message whose type is out of sight may be a Join/Prune: better refused than passed over.
void Replay::pimIs(Place const& place, Datagram const& datagram) {
  bool const maybeJoinPrune = datagram.payload.empty() || isPimType(datagram.payload, PimType::joinPrune);
  switch (datagram.state) {
    case Datagram::State::malformed:
      return refuse(place, {Reason::badIpHeader, ""});
    case Datagram::State::laterFragment:
      return;  // The first one stands for all of them.
    case Datagram::State::firstFragment:
      if (maybeJoinPrune) refuse(place, {Reason::fragment, ""});
      return;
    case Datagram::State::snapped:
      if (maybeJoinPrune) refuse(place, {Reason::truncated, "by the capture"});
      return;
    case Datagram::State::whole:
      break;
  }
  if (maybeJoinPrune) {
    joinPruneIs(place, datagram);
  } else if (isPimType(datagram.payload, PimType::hello)) {
    helloIs(place, datagram);
  }
}

void Replay::joinPruneIs(Place const& place, Datagram const& datagram) {
  auto const decoded = decodeJoinPrune(datagram.payload, datagram.source, datagram.destination);
  if (auto const* refusal = std::get_if<Refusal>(&decoded)) return refuse(place, *refusal);
  auto const& message = std::get<WireMessage>(decoded);
  ++totals_.messages;
  neighborIs(datagram.source, place.time, message.holdTime());
  deliver(place, message);
}

void Replay::helloIs(Place const& place, Datagram const& datagram) {
  auto const decoded = decodeHello(datagram.payload, datagram.source, datagram.destination);
  if (auto const* holdTime = std::get_if<U16>(&decoded)) neighborIs(datagram.source, place.time, *holdTime);
}

void Replay::neighborIs(IpGenAddr const& sender, Vel::Seconds now, U16 holdTime) {
  if (auto const known = neighborEnds_.find(sender); known != neighborEnds_.end()) {
    neighborsByEnd_.erase({known->second, sender});
    neighborEnds_.erase(known);
  }
  if (holdTime == 0) {
    pimStatus_->pimNeighborDel(sender);
    return;
  }
  constexpr auto never = std::numeric_limits<Vel::Seconds>::infinity();
  Vel::Seconds const end = holdTime == endlessHoldTime ? never : now + holdTime;
  neighborEnds_.emplace(sender, end);
  neighborsByEnd_.emplace(end, sender);
  pimStatus_->pimNeighborIs(sender, intf_);
}

void Replay::expireNeighbors(Vel::Seconds now) {
  while (!neighborsByEnd_.empty() && neighborsByEnd_.begin()->first <= now) {
    auto const sender = neighborsByEnd_.extract(neighborsByEnd_.begin()).value().second;
    neighborEnds_.erase(sender);
    pimStatus_->pimNeighborDel(sender);
  }
}

void Replay::deliver(Place const& place, WireMessage const& message) {
  for (auto const& model : modelMessages(message)) {
    rxMessageInfo_->joinPruneMessageIs(model);
    rxMessageInfo_->intfIdIs(intf_->intfId());
    std::size_t const first = entries_.size();
    rxMessageInfo_->countInc(1);
    sortEntries(std::span(entries_).subspan(first));
  }
  for (auto const& entry : entries_) {
    ++totals_.entries[static_cast<std::size_t>(entry.record)][static_cast<std::size_t>(entry.kind)];
    report_.entry(place, entry);
  }
  entries_.clear();
}

void Replay::refuse(Place const& place, Refusal const& refusal) {
  ++totals_.messages;
  ++totals_.refused[static_cast<std::size_t>(refusal.reason)];
  report_.refusal(place, refusal);
}

}  // namespace Routing::Pim::Agent
