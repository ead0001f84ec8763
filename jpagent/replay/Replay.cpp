// SPDX-License-Identifier: Apache-2.0
#include "jpagent/replay/Replay.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <tuple>

#include "pim/speaker/Conversion.h"
#include "pim/wire/Hello.h"

namespace Routing::Pim::Jpagent {

namespace {

// The interfaces of a file are read as one.
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

// Entries of one model message, of which no two are the same: by group, and in the order that the engine has
// within a group.
void sortEntries(std::span<Entry> entries) {
  auto const rank = [](Entry const& entry) { return std::tie(entry.group, entry.kind, entry.source); };
  std::sort(entries.begin(), entries.end(),
            [&rank](Entry const& a, Entry const& b) { return rank(a) < rank(b); });
}

bool isLinkLocal(IpGenAddr const& ipv6) {
  auto const bytes = ipv6.bytes();
  return bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80;
}

// RFC 7761, 4.9 has senders use these addresses and a TTL of 1, and asks no receiver to test them. This is
// hardening: without it, routers that are not on the link could speak as if they were.
std::optional<Wire::Refusal> senderFault(Datagram const& datagram) {
  static IpGenAddr const broadcast("255.255.255.255");
  auto const& source = datagram.source;
  if (Wire::sourceFault(source, source.af()) || source == broadcast) {
    return Wire::Refusal{Wire::Reason::senderNotUnicast, toText(source)};
  }
  if (source.isIpv6() && !isLinkLocal(source))
    return Wire::Refusal{Wire::Reason::senderNotLinkLocal, toText(source)};
  if (datagram.destination != Wire::allPimRouters(source.af())) {
    return Wire::Refusal{Wire::Reason::notAllPimRouters, toText(datagram.destination)};
  }
  if (datagram.hopLimit != 1)
    return Wire::Refusal{Wire::Reason::hopLimitNotOne, std::to_string(datagram.hopLimit)};
  return std::nullopt;
}

}  // namespace

// Reads an entry when its count moves: everything else in the record is in place by then.
class Replay::EntryReactor final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  EntryReactor(bool joins, std::vector<Entry>& entries) : joins_(joins), entries_(entries) {}

  void onRxCount() override {
    auto const& info = *notifier();
    Entry entry;
    entry.kind = entryKindOf(info.sourceFlags().value(), joins_);
    entry.source = info.riKey().source();
    entry.group = info.riKey().group();
    entry.upstreamNeighbor = info.upstreamNeighbor();
    entry.holdTime = static_cast<U16>(info.holdTime());
    entry.flags = info.sourceFlags();
    if (isWildcard(entry.kind)) entry.rp = info.wcSource();
    entries_.push_back(entry);
  }

 private:
  bool const joins_;
  std::vector<Entry>& entries_;
};

Replay::Replay(ReplayOptions const& options, Report& report)
    : report_(report),
      lenient_(options.lenient),
      pimStatus_(Vel::create<Status>()),
      intf_(pimStatus_->pimIntfIs(Dova::IntfId(captureIntf))),
      rxMessageInfo_(Vel::create<IO::MessageInfo>()),
      joinReactor_(Vel::create<EntryReactor>(true, entries_)),
      pruneReactor_(Vel::create<EntryReactor>(false, entries_)) {
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

void Replay::receiveFrame(Frame const& frame) {
  ++totals_.frames;
  expireNeighbors(frame.time);
  auto const found = findDatagram(frame.link, frame.bytes);
  if (auto const* const why = std::get_if<PassedOver>(&found)) return passOver(*why);
  auto const& datagram = std::get<Datagram>(found);
  if (datagram.protocol != Wire::pimProtocol) return passOver(PassedOver::otherProtocol);
  receivePim({frame.number, frame.time}, datagram);
}

void Replay::passOver(PassedOver why) { ++totals_.passedOver[static_cast<std::size_t>(why)]; }

// A message whose type is out of sight may be a Join/Prune: better refused than passed over.
void Replay::receivePim(Place const& place, Datagram const& datagram) {
  if (datagram.state == Datagram::State::laterFragment) return passOver(PassedOver::laterFragment);
  Wire::PimType const type = Wire::isPimType(datagram.payload, Wire::PimType::hello)
                                 ? Wire::PimType::hello
                                 : Wire::PimType::joinPrune;
  if (!datagram.payload.empty() && !Wire::isPimType(datagram.payload, type)) {
    return passOver(PassedOver::otherMessage);
  }
  switch (datagram.state) {
    case Datagram::State::malformed:
      return refuse(place, type, {Wire::Reason::badIpHeader, ""});
    case Datagram::State::firstFragment:
      return refuse(place, type, {Wire::Reason::fragment, ""});
    case Datagram::State::snapped:
      return refuse(place, type, {Wire::Reason::truncated, "by the capture"});
    case Datagram::State::laterFragment:
    case Datagram::State::whole:
      break;
  }
  auto const fault = senderFault(datagram);
  if (fault && !lenient_) return refuse(place, type, *fault);
  bool const taken =
      type == Wire::PimType::hello ? takeHello(place, datagram) : takeJoinPrune(place, datagram);
  if (fault && taken) ++totals_.lenient;
}

// False if it is refused.
bool Replay::takeJoinPrune(Place const& place, Datagram const& datagram) {
  auto const decoded = Wire::decodeJoinPrune(datagram.payload, datagram.source, datagram.destination);
  if (auto const* refusal = std::get_if<Wire::Refusal>(&decoded)) {
    refuse(place, Wire::PimType::joinPrune, *refusal);
    return false;
  }
  auto const& message = std::get<Wire::JoinPrune>(decoded);
  ++totals_.messages;
  neighborIs(datagram.source, place.time, message.holdTime());
  deliver(place, message);
  return true;
}

bool Replay::takeHello(Place const& place, Datagram const& datagram) {
  auto const decoded = Wire::decodeHello(datagram.payload, datagram.source, datagram.destination);
  if (auto const* refusal = std::get_if<Wire::Refusal>(&decoded)) {
    refuse(place, Wire::PimType::hello, *refusal);
    return false;
  }
  ++totals_.hellos;
  neighborIs(datagram.source, place.time, std::get<Wire::Hello>(decoded).effectiveHoldTime());
  return true;
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
  if (neighborEnds_.size() == maxNeighbors) {
    ++totals_.strangers;
    return;
  }
  constexpr auto never = std::numeric_limits<Vel::Seconds>::infinity();
  Vel::Seconds const end = holdTime == Wire::endlessHoldTime ? never : now + holdTime;
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

void Replay::deliver(Place const& place, Wire::JoinPrune const& message) {
  for (auto const& model : Speaker::modelMessages(message)) {
    rxMessageInfo_->joinPruneMessageIs(model);
    rxMessageInfo_->intfIdIs(intf_->intfId());
    std::size_t const first = entries_.size();
    rxMessageInfo_->countInc(1);
    sortEntries(std::span(entries_).subspan(first));
  }
  for (auto const& entry : entries_) {
    ++totals_.entries[indexOf(entry.kind)];
    report_.entry(place, entry);
  }
  entries_.clear();
}

void Replay::refuse(Place const& place, Wire::PimType type, Wire::Refusal const& refusal) {
  ++(type == Wire::PimType::hello ? totals_.hellos : totals_.messages);
  ++totals_.refused[static_cast<std::size_t>(refusal.reason)];
  report_.refusal(place, type, refusal);
}

}  // namespace Routing::Pim::Jpagent
