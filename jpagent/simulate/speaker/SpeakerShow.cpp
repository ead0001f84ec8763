// SPDX-License-Identifier: Apache-2.0
// What is shown of a speaker.
#include "jpagent/simulate/Inside.h"
#include "jpagent/simulate/speaker/SpeakerWorld.h"

namespace Routing::Pim::Jpagent {

namespace {

std::string whenText(Seconds time) { return time == Vel::never ? "never" : secondsText(time); }

std::string numberText(std::optional<U32> number) { return number ? fmt::format("{}", *number) : "none"; }

std::string delayText(std::optional<Wire::LanPruneDelay> const& delay) {
  if (!delay) return "none";
  return fmt::format("{} ms, override {} ms{}", delay->propagationDelay, delay->overrideInterval,
                     delay->tracking ? ", tracking" : "");
}

}  // namespace

void SpeakerWorld::show(SpeakerSubject subject) {
  switch (subject) {
    case SpeakerSubject::interfaces:
      return showInterfaces();
    case SpeakerSubject::neighbors:
      return showNeighbors();
    case SpeakerSubject::upstream:
      return showUpstream();
    case SpeakerSubject::downstream:
      return showDownstream();
    case SpeakerSubject::counters:
      return showCounters();
  }
}

void SpeakerWorld::showInterfaces() {
  if (interfaces_.empty()) line("show no interfaces");
  for (auto const& [name, interface] : interfaces_)
    for (auto const family : {Dova::AddressFamily::ipv4, Dova::AddressFamily::ipv6})
      showInterface(name, interface, family);
}

void SpeakerWorld::showInterface(std::string const& name, Interface const& interface,
                                 Dova::AddressFamily family) {
  bool const isServed =
      std::any_of(interface.addresses.begin(), interface.addresses.end(),
                  [family](IpGenPrefix const& address) { return address.ipGenAddr().af() == family; });
  auto const* const link = speaker_.link(name, family);
  if (!isServed || link == nullptr) return;
  if (link->primaryAddress() == IpGenAddr()) {
    line(fmt::format("show interface {}: down", name));
    return;
  }
  line(fmt::format("show interface {}: {}, {}, delay {}, override {}, suppression {}", name,
                   toText(link->primaryAddress()), counted(link->neighborCount(), "neighbor"),
                   secondsText(link->propagationDelay()), secondsText(link->overrideInterval()),
                   link->suppressionAllowed() ? "allowed" : "not allowed"));
}

void SpeakerWorld::showNeighbors() {
  auto const neighbors = speaker_.neighbors();
  if (neighbors.empty()) line("show no neighbors");
  for (auto const& [intf, info, isDesignatedRouter] : neighbors) {
    std::string more;
    for (auto const& address : info.addresses) more += ", also " + toText(address);
    if (info.restarts != 0) more += ", " + counted(info.restarts, "restart");
    if (isDesignatedRouter) more += ", designated router";
    line(fmt::format(
        "show neighbor {} on {}: up since {}, hold {}, expires {}, delay {}, DR priority {}, "
        "generation ID {}{}",
        toText(info.address), intf.name(), secondsText(info.upSince), info.holdTime, whenText(info.expires),
        delayText(info.options.delay), numberText(info.options.drPriority),
        info.generationId ? fmt::format("0x{:08x}", *info.generationId) : "none", more));
  }
}

void SpeakerWorld::showUpstream() {
  auto const routes = speaker_.upstream().routes();
  if (routes.empty()) line("show no upstream routes");
  for (auto const& route : routes) {
    std::string text = "show upstream " + toText(route.route);
    if (route.route.kind == Speaker::RouteKind::wildcard) text += " rp " + toText(route.rp);
    if (route.upstream)
      text += fmt::format(" via {} on {}", toText(route.upstream->address), route.upstream->intf.name());
    line(fmt::format("{}: {}", text, Speaker::text(route.sending)));
  }
}

void SpeakerWorld::showDownstream() {
  auto const routes = speaker_.downstream();
  if (routes.empty()) line("show no downstream routes");
  for (auto const& [intf, route] : routes) {
    line(fmt::format("show downstream {}{} on {}: {}, from {}, expires {}{}", toText(route.route),
                     route.rp ? " rp " + toText(*route.rp) : "", intf.name(), Speaker::text(route.state),
                     toText(route.sender), whenText(route.expires),
                     route.pruneEnds == Vel::never ? "" : ", prune ends " + secondsText(route.pruneEnds)));
  }
}

// Those that are not zero: most are for what does not happen.
void SpeakerWorld::showCounters() {
  auto const& counters = speaker_.counters();
  auto const tell = [this](std::string_view what, U64 count) {
    if (count != 0) line(fmt::format("show counter {}: {}", what, count));
  };
  tell("Hellos sent", counters.hellosSent);
  tell("Join/Prunes sent", counters.joinPrunesSent);
  tell("override interval changes", counters.overrideIntervalChanges);
  tell("(S,G,rpt) prunes left out", counters.prunesLeftOut);
  for (std::size_t i = 0; i < counters.verdicts.size(); ++i)
    tell(fmt::format("received, {}", Speaker::verdictNames[i]), counters.verdicts[i]);
  for (std::size_t i = 0; i < counters.refusals.size(); ++i)
    tell(fmt::format("refused, {}", Wire::reasonNames[i]), counters.refusals[i]);
  for (auto const& [name, interface] : interfaces_) {
    for (auto const family : {Dova::AddressFamily::ipv4, Dova::AddressFamily::ipv6}) {
      auto const* const routes = speaker_.downstream(name, family);
      if (routes == nullptr) continue;
      auto const& entries = routes->counters();
      tell(fmt::format("entries on {}, denied", name), entries.denied);
      tell(fmt::format("entries on {}, of another RP", name), entries.wrongRp);
      tell(fmt::format("entries on {}, beyond the limit of the interface", name), entries.overLimit);
      tell(fmt::format("entries on {}, beyond the limit of a neighbor", name), entries.overNeighborLimit);
    }
  }
}

}  // namespace Routing::Pim::Jpagent
