// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/Speaker.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "pim/speaker/private/CallOut.h"
#include "pim/speaker/private/SpeakerLink.h"
#include "pim/wire/private/Text.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Speaker {

namespace {

constexpr Seconds mostInterval = 1e9;

// The engine must not see an address of unknown family, so what the hook does not know is the message's RP.
class RpOfHook final : public RpHashComputeStatus {
 public:
  explicit RpOfHook(std::function<std::optional<IpGenAddr>(IpGenAddr const&)> hook)
      : hook_(std::move(hook)) {}

  IpGenAddr rpHashCompute(IpGenAddr const& group, IpGenAddr const& rp) override {
    auto const known = hook_ ? hook_(group) : std::nullopt;
    return known && known->af() == group.af() ? *known : rp;
  }

 private:
  std::function<std::optional<IpGenAddr>(IpGenAddr const&)> const hook_;
};

bool isLinkLocal(IpGenAddr const& address) {
  return address.isIpv6() && address.bytes()[0] == 0xfe && (address.bytes()[1] & 0xc0) == 0x80;
}

bool isUnicast(IpGenAddr const& address) {
  constexpr U32 broadcast = 0xffffffff;
  if (address.width() == 0 || address.isZero() || Wire::isMulticast(address)) return false;
  return !address.isIpv4() || address.ipv4() != broadcast;
}

void requireValid(std::string_view name, std::vector<Dova::IpGenPrefix> const& addresses,
                  InterfaceSettings const& settings) {
  if (name.empty()) throw Vel::RangeException("an interface without a name");
  for (auto const& address : addresses) {
    if (!isUnicast(address.ipGenAddr()))
      throw Vel::RangeException(Wire::concatenated(name, ": address ", toText(address), " is not unicast"));
  }
  Seconds const interval = settings.joinPruneInterval;
  if (!(interval > 0 && interval <= mostInterval)) {
    throw Vel::RangeException(Wire::concatenated(name, ": Join/Prune interval of ",
                                                 interval == 0 ? "0" : std::to_string(interval), " s"));
  }
  requireValid(settings.hello);
}

// The addresses of one family, the primary one apart.
LinkSetup setupOf(AddressFamily family, std::vector<Dova::IpGenPrefix> const& addresses,
                  InterfaceSettings const& settings) {
  LinkSetup setup{.primary = {}, .secondary = {}, .settings = settings};
  for (auto const& prefix : addresses) {
    IpGenAddr const& address = prefix.ipGenAddr();
    bool const canBePrimary = address.isIpv4() || isLinkLocal(address);
    if (address.af() != family) continue;
    if (setup.primary == Dova::IpGenPrefix() && canBePrimary)
      setup.primary = prefix;
    else
      setup.secondary.push_back(address);
  }
  // An address that is given twice is announced once, the primary one not at all (RFC 7761, 4.3.4).
  std::set<IpGenAddr> known{setup.primary.ipGenAddr()};
  std::erase_if(setup.secondary,
                [&known](IpGenAddr const& address) { return !known.insert(address).second; });
  if (setup.primary != Dova::IpGenPrefix()) requireListable(setup.secondary);
  return setup;
}

// Why an IP header does not belong to a message to neighbors. That receivers test the TTL is no rule of RFC
// 7761, 4.9, which has senders use 1; it keeps out what comes from afar.
std::optional<Wire::Refusal> headerRefusal(Incoming const& packet) {
  using enum Wire::Reason;
  if (!isUnicast(packet.source)) return Wire::Refusal{senderNotUnicast, toText(packet.source)};
  if (packet.source.isIpv6() && !isLinkLocal(packet.source))
    return Wire::Refusal{senderNotLinkLocal, toText(packet.source)};
  if (packet.destination.af() != packet.source.af())
    return Wire::Refusal{familiesDiffer,
                         Wire::concatenated(toText(packet.source), " to ", toText(packet.destination))};
  if (packet.destination != Wire::allPimRouters(packet.source.af()))
    return Wire::Refusal{notAllPimRouters, toText(packet.destination)};
  if (packet.ttl != 1) return Wire::Refusal{hopLimitNotOne, std::to_string(packet.ttl)};
  return std::nullopt;
}

// What an IPv4 header says; without its addresses if they are not there.
struct Ipv4Header {
  static constexpr std::size_t smallest = 20;

  explicit Ipv4Header(std::span<U8 const> packet) {
    using enum Wire::Reason;
    if (packet.size() < smallest) {
      refusal = {truncated, "in the IP header"};
      return;
    }
    auto const field = [&](std::size_t offset) {
      return static_cast<std::size_t>(packet[offset] << 8 | packet[offset + 1]);
    };
    std::size_t const version = packet[0] >> 4, size = (packet[0] & 15u) * 4, total = field(2);
    if (version != 4) {
      refusal = {badIpHeader, Wire::concatenated("version ", version)};
      return;
    }
    ttl = packet[8];
    source = IpGenAddr::fromBytes(packet.subspan(12, 4));
    destination = IpGenAddr::fromBytes(packet.subspan(16, 4));
    if (size < smallest || total < size)
      refusal = {badIpHeader, Wire::concatenated("header of ", size, " bytes, packet of ", total)};
    else if (total > packet.size())
      refusal = {truncated, Wire::concatenated(packet.size(), " of ", total, " bytes")};
    else if ((field(6) & 0x3fff) != 0)  // an offset, or more to come
      refusal = {fragment, ""};
    else
      payload = packet.subspan(size, total - size);
  }

  Incoming incoming(std::string_view intf) const { return {intf, source, destination, ttl}; }

  IpGenAddr source, destination;
  unsigned ttl = 0;
  std::span<U8 const> payload;
  std::optional<Wire::Refusal> refusal;
};

}  // namespace

Speaker::Speaker(Vel::Ptr<Zanth::TimerWheel> const& wheel, Sink& sink, SpeakerSettings settings)
    : wheel_(wheel),
      sink_(sink),
      settings_(std::move(settings)),
      rpHash_(Vel::create<RpOfHook>(settings_.rp)),
      random_(settings_.seed),
      upstream_(std::make_unique<UpstreamRoutes>()) {}

Speaker::~Speaker() = default;

// --- Interfaces ----------------------------------------------------------------------------------

void Speaker::interfaceIs(std::string_view name, std::vector<Dova::IpGenPrefix> const& addresses,
                          InterfaceSettings const& settings) {
  requireValid(name, addresses, settings);
  LinkSetup ipv4 = setupOf(AddressFamily::ipv4, addresses, settings);
  LinkSetup ipv6 = setupOf(AddressFamily::ipv6, addresses, settings);
  Life::Watch const watch(life_);
  std::string const key(name);
  auto found = interfaces_.find(key);
  if (found == interfaces_.end()) {
    Dova::IntfId const intf(name);
    Interface made{std::make_unique<SpeakerLink>(*this, intf, AddressFamily::ipv4),
                   std::make_unique<SpeakerLink>(*this, intf, AddressFamily::ipv6)};
    found = interfaces_.emplace(key, std::move(made)).first;
  }
  found->second.isRemoved = false;
  U64 const change = ++changes_;
  found->second.change = change;
  found->second.ipv4->setupIs(std::move(ipv4));
  if (watch.ended()) return;
  // A callback may have changed the interface again, or removed it and made it anew.
  auto const present = interfaces_.find(key);
  if (present != interfaces_.end() && present->second.change == change)
    present->second.ipv6->setupIs(std::move(ipv6));
  if (!watch.ended()) endIfRemoved(key);
}

void Speaker::interfaceIs(std::string_view name, std::initializer_list<std::string_view> addresses,
                          InterfaceSettings const& settings) {
  std::vector<Dova::IpGenPrefix> prefixes;
  for (auto const text : addresses) {
    auto const prefix = Dova::IpGenPrefix::fromText(text);
    if (!prefix) throw Vel::RangeException(Wire::concatenated(name, ": \"", text, "\" is not an address"));
    prefixes.push_back(*prefix);
  }
  interfaceIs(name, prefixes, settings);
}

bool Speaker::interfaceDel(std::string_view name) {
  std::string const key(name);
  auto const found = interfaces_.find(key);
  if (found == interfaces_.end()) return false;
  found->second.isRemoved = true;
  found->second.change = ++changes_;
  Life::Watch const watch(life_);
  for (auto const family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    // A callback may have made it anew.
    auto const present = interfaces_.find(key);
    if (present == interfaces_.end() || !present->second.isRemoved) return true;
    linkOf(key, family)->setupIs({});
    if (watch.ended()) return true;
  }
  endIfRemoved(key);
  return true;
}

void Speaker::endIfRemoved(std::string const& name) {
  auto const found = interfaces_.find(name);
  if (found == interfaces_.end() || !found->second.isRemoved) return;
  if (found->second.ipv4->isChanging() || found->second.ipv6->isChanging()) return;
  auto const removed = interfaces_.extract(found);  // It ends when the map no longer has it.
}

void Speaker::shutDown() {
  Life::Watch const watch(life_);
  std::vector<std::string> names;
  for (auto const& [name, links] : interfaces_) names.push_back(name);
  for (auto const& name : names)
    if (!watch.ended()) interfaceDel(name);
}

SpeakerLink* Speaker::linkOf(std::string_view intf, AddressFamily family) const {
  auto const found = interfaces_.find(intf);
  if (found == interfaces_.end()) return nullptr;
  switch (family) {
    case AddressFamily::ipv4:
      return found->second.ipv4.get();
    case AddressFamily::ipv6:
      return found->second.ipv6.get();
    case AddressFamily::unknown:
      break;
  }
  return nullptr;
}

Link* Speaker::link(std::string_view intf, AddressFamily family) const { return linkOf(intf, family); }

bool Speaker::linkObserverAdd(std::string_view intf, AddressFamily family, LinkObserver& observer) {
  SpeakerLink* const link = linkOf(intf, family);
  if (link) link->observerAdd(observer);
  return link != nullptr;
}

std::pair<Vel::Ptr<JoinPruneMessageInfo>, Vel::Ptr<JoinPruneMessageInfo>> Speaker::records(
    std::string_view intf, AddressFamily family) const {
  SpeakerLink const* const link = linkOf(intf, family);
  if (!link) return {};
  return link->records();
}

// --- Packets and time ----------------------------------------------------------------------------

Verdict Speaker::receive(Incoming const& packet, std::span<U8 const> bytes) {
  Life::Watch const watch(life_);
  std::optional<Wire::Refusal> refusal;
  Verdict const verdict = deliver(packet, bytes, refusal);
  if (!watch.ended()) count(packet, verdict, refusal);
  return verdict;
}

Verdict Speaker::receiveIpv4(std::string_view intf, std::span<U8 const> packet) {
  Ipv4Header const header(packet);
  if (!header.refusal) return receive(header.incoming(intf), header.payload);
  Verdict const verdict = hasInterface(intf) ? Verdict::refused : Verdict::unknownInterface;
  count(header.incoming(intf), verdict, verdict == Verdict::refused ? header.refusal : std::nullopt);
  return verdict;
}

// Counts a packet that was received, and tells of one that was not delivered.
void Speaker::count(Incoming const& packet, Verdict verdict, std::optional<Wire::Refusal> const& refusal) {
  ++counters_.verdicts[static_cast<std::size_t>(verdict)];
  if (refusal) ++counters_.refusals[static_cast<std::size_t>(refusal->reason)];
  SpeakerObserver* const observer = settings_.observer;
  if (verdict <= Verdict::heard || !observer) return;
  auto const interface = interfaces_.find(packet.intf);
  auto const reason = refusal ? std::optional(refusal->reason) : std::nullopt;
  EventBudget& budget =
      interface == interfaces_.end() ? unknownInterfaces_ : interface->second.undelivered[{verdict, reason}];
  if (!budget.admits(wheel_->now())) return;
  UndeliveredPacket const undelivered{packet, verdict, refusal ? &*refusal : nullptr, budget.takeLeftOut()};
  callOut("Speaker", "receive", [&] { observer->packetUndelivered(undelivered); });
}

Verdict Speaker::deliver(Incoming const& packet, std::span<U8 const> bytes,
                         std::optional<Wire::Refusal>& refusal) {
  if (!hasInterface(packet.intf)) return Verdict::unknownInterface;
  SpeakerLink* const link = linkOf(packet.intf, packet.source.af());
  if (link && link->isOwn(packet.source)) return Verdict::ownPacket;
  refusal = headerRefusal(packet);
  if (refusal) return Verdict::refused;
  if (!link->neighbors()) return Verdict::noLink;
  return link->receive(packet.source, packet.destination, bytes, refusal);
}

Sent Speaker::send(Wire::PimType type, Dova::IntfId const& intf, IpGenAddr const& source,
                   std::span<U8 const> bytes) {
  Life::Watch const watch(life_);
  Sent sent = Sent::failed;
  Dova::IntfId const name = intf;
  Outgoing const packet{name, source, Wire::allPimRouters(source.af()), bytes};
  std::string reason;
  callOut("Speaker", "send", [&] {
    try {
      sent = sink_.send(packet);
    } catch (std::exception const& error) {
      reason = error.what();
      throw;
    }
    if (sent == Sent::failed && !watch.ended()) reason = sink_.failure();
  });
  if (watch.ended()) return sent;
  ++(sent == Sent::later            ? counters_.sentLater
     : sent == Sent::failed         ? counters_.sendingFailed
     : type == Wire::PimType::hello ? counters_.hellosSent
                                    : counters_.joinPrunesSent);
  if (sent == Sent::failed) countFailure(packet, reason);
  return sent;
}

void Speaker::countFailure(Outgoing const& packet, std::string_view reason) {
  constexpr std::size_t mostReasons = 32;
  if (auto const known = counters_.failures.find(reason); known != counters_.failures.end())
    ++known->second;
  else if (counters_.failures.size() < mostReasons)
    counters_.failures.emplace(reason, 1);
  SpeakerObserver* const observer = settings_.observer;
  auto const interface = interfaces_.find(packet.intf.name());
  if (!observer || interface == interfaces_.end()) return;
  EventBudget& budget = interface->second.failures;
  if (!budget.admits(wheel_->now())) return;
  FailedPacket const failed{packet, reason, budget.takeLeftOut()};
  callOut("Speaker", "send", [&] { observer->sendingFailed(failed); });
}

int Speaker::pollTimeout() const {
  // A poll that ends too early would find nothing due, and spin.
  double const milliseconds = std::ceil((timeMin() - wheel_->now()) * 1000);
  return static_cast<int>(std::clamp(milliseconds, 0.0, 60'000.0));
}

void Speaker::expire() {
  Vel::Ptr<Zanth::TimerWheel> const wheel = wheel_;  // A callback may destroy this.
  wheel->expire();
}

// --- Looking at it -------------------------------------------------------------------------------

std::pair<Dova::IntfId, IpGenAddr> Speaker::neighborNamed(std::string_view name) const {
  std::size_t const percent = name.find('%');
  auto const address = IpGenAddr::fromText(name.substr(0, percent));
  if (!address || address->width() == 0)
    throw Vel::RangeException(Wire::concatenated("\"", name, "\" is not an address"));
  std::optional<std::pair<Dova::IntfId, IpGenAddr>> found;
  for (auto const& [intf, links] : interfaces_) {
    if (percent != std::string_view::npos && name.substr(percent + 1) != intf) continue;
    SpeakerLink const& link = address->isIpv4() ? *links.ipv4 : *links.ipv6;
    auto const neighbor = link.neighborOf(*address);
    if (!neighbor) continue;
    if (found) {
      throw Vel::RangeException(
          Wire::concatenated("neighbor ", name, " is on ", found->first.name(), " and ", intf));
    }
    found.emplace(link.intf(), *neighbor);
  }
  if (!found) throw Vel::RangeException(Wire::concatenated("no neighbor ", name));
  return *found;
}

IpGenAddr Speaker::designatedRouter(std::string_view intf, AddressFamily family) const {
  SpeakerLink const* const link = linkOf(intf, family);
  return link && link->neighbors() ? link->neighbors()->designatedRouter() : IpGenAddr();
}

Seconds Speaker::nextRefresh(UpstreamNeighbor const& upstream) const {
  SpeakerLink const* const link = linkOf(upstream.intf.name(), upstream.address.af());
  return link ? link->nextRefresh(upstream.address) : Vel::never;
}

std::vector<NeighborOnInterface> Speaker::neighbors() const {
  std::vector<NeighborOnInterface> all;
  for (auto const& [name, links] : interfaces_) {
    for (auto const* link : {links.ipv4.get(), links.ipv6.get()}) {
      if (!link->neighbors()) continue;
      for (auto& info : link->neighbors()->snapshot()) {
        bool const isDesignatedRouter = info.address == link->neighbors()->designatedRouter();
        all.push_back({link->intf(), std::move(info), isDesignatedRouter});
      }
    }
  }
  return all;
}

std::vector<DownstreamOnInterface> Speaker::downstream() const {
  std::vector<DownstreamOnInterface> all;
  for (auto const& [name, links] : interfaces_)
    for (auto const* link : {links.ipv4.get(), links.ipv6.get()})
      for (auto& route : link->downstream().routes()) all.push_back({link->intf(), std::move(route)});
  return all;
}

DownstreamRoutes const* Speaker::downstream(std::string_view intf, AddressFamily family) const {
  SpeakerLink const* const link = linkOf(intf, family);
  return link ? &link->downstream() : nullptr;
}

}  // namespace Routing::Pim::Speaker
