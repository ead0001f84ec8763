// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/LiveSpeaker.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

#include "jpagent/live/Inside.h"
#include "jpagent/live/Recording.h"
#include "runtime/vel/Exception.h"
#include "runtime/vel/Hash.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

// How long prunes and goodbyes may take in the end, and after what time a goodbye is tried again, in seconds.
constexpr Seconds quitting = 2, goodbyeRetry = 0.1;
// The largest IP packet.
constexpr U32 mostMtu = 65535;

bool isGoodbye(Speaker::Outgoing const& packet) {
  if (!Wire::isPimType(packet.bytes, Wire::PimType::hello)) return false;
  auto const decoded = Wire::decodeHello(packet.bytes, packet.source, packet.destination);
  auto const* const hello = std::get_if<Wire::Hello>(&decoded);
  return hello != nullptr && hello->effectiveHoldTime() == 0;
}

}  // namespace

bool canBeInterface(std::string_view name) {
  constexpr std::size_t longest = 15;  // the kernel's
  return !name.empty() && name.size() <= longest && name != "." && name != ".." &&
         std::none_of(name.begin(), name.end(), [](char c) {
           return c == '/' || c == ':' || c == '%' || static_cast<unsigned char>(c) <= ' ';
         });
}

void seedProcess(LiveSettings const& settings) {
  Vel::hashSeedIs(settings.hashSeed);
  srand48(settings.randomSeed);
}

// --- Life and time

LiveSpeaker::LiveSpeaker(Seconds now, LiveOutside& outside, LiveSettings settings)
    : outside_(outside),
      settings_(std::move(settings)),
      begun_(now),
      now_(now),
      denied_(Vel::create<Denied>()),
      wheel_(Vel::create<Zanth::TimerWheel>([this] { return now_; })) {
  if (settings_.record)
    for (auto const& line : recordingHead(now, settings_)) settings_.record(line);
  speaker_ = std::make_unique<Speaker::Speaker>(
      wheel_, static_cast<Speaker::Sink&>(*this),
      Speaker::SpeakerSettings{.seed = settings_.seed,
                               .filter = denied_,
                               .rp = [this](IpGenAddr const& group) -> std::optional<IpGenAddr> {
                                 IpGenAddr const rp = rpOf(group);
                                 if (rp == IpGenAddr()) return std::nullopt;
                                 return rp;
                               },
                               .observer = this});
}

LiveSpeaker::~LiveSpeaker() = default;

void LiveSpeaker::record(std::string_view input) const {
  if (settings_.record) settings_.record(fmt::format("at {} {}", now_, input));
}

Seconds LiveSpeaker::timeMin() const {
  Seconds const goodbyes = goodbyes_.empty() ? Vel::never : goodbyesDue_;
  if (hasEnded_) return goodbyes;
  return std::min({goodbyes, quitBy_.value_or(Vel::never), speaker_->timeMin()});
}

void LiveSpeaker::expire() {
  if (timeMin() > now_) return;
  record("expire");
  if (!hasEnded_) speaker_->expire();
  if (!goodbyes_.empty() && goodbyesDue_ <= now_) sendGoodbyesAgain();
  goOnQuitting();
}

// --- Interfaces

void LiveSpeaker::interfaceGiven(std::string const& name) {
  if (!canBeInterface(name)) refuse("\"{}\" cannot be the name of an interface", name);
  if (hasEnded_ || interfaces_.contains(name)) return;
  record(fmt::format("given {}", name));
  interfaces_[name];
}

void LiveSpeaker::interfaceTaken(std::string const& name) {
  auto const found = interfaces_.find(name);
  if (hasEnded_ || found == interfaces_.end()) return;
  record(fmt::format("taken {}", name));
  found->second.kernel.reset();
  apply(name, found->second);
  interfaces_.erase(found);
}

void LiveSpeaker::kernelInterfaceIs(std::string const& name, KernelInterface const& kernel) {
  auto const found = interfaces_.find(name);
  if (hasEnded_ || found == interfaces_.end() || found->second.kernel == kernel) return;
  record(kernelInput(name, kernel));
  found->second.kernel = kernel;
  apply(name, found->second);
  goOnQuitting();
}

void LiveSpeaker::kernelInterfaceDel(std::string const& name) {
  auto const found = interfaces_.find(name);
  if (hasEnded_ || found == interfaces_.end() || !found->second.kernel) return;
  record(fmt::format("removed {}", name));
  found->second.kernel.reset();
  apply(name, found->second);
  goOnQuitting();
}

// The system's word cannot be refused; what the speaker does not take is told.
void LiveSpeaker::apply(std::string const& name, Interface& interface) {
  try {
    applyToSpeaker(name, interface);
  } catch (Vel::RangeException const& e) {
    tell("error", {{"what", fmt::format("interface {}", name)}, {"reason", e.what()}});
  }
  tellLinks(name, interface);
}

// A link without an address is down.
void LiveSpeaker::applyToSpeaker(std::string const& name, Interface const& interface) {
  if (!interface.kernel) {
    speaker_->interfaceDel(name);
    return;
  }
  KernelInterface const& kernel = *interface.kernel;
  Speaker::InterfaceSettings settings = interface.settings;
  settings.mtu = std::min(kernel.mtu, mostMtu);
  settings.pointToPoint = kernel.pointToPoint;
  speaker_->interfaceIs(
      name, kernel.isRunning && !interface.isDown ? kernel.addresses : std::vector<IpGenPrefix>(), settings);
}

void LiveSpeaker::tellLinks(std::string const& name, Interface& interface) {
  for (auto const family : families) {
    auto const* const link = speaker_->link(name, family);
    IpGenAddr const address = link ? link->primaryAddress() : IpGenAddr();
    std::optional<Told> present;
    if (interface.kernel && !(address == IpGenAddr())) {
      for (auto const& prefix : interface.kernel->addresses)
        if (prefix.ipGenAddr() == address && !present) present = Told{prefix, interface.kernel->mtu};
    }
    auto& told = interface.told[indexOf(family)];
    auto& goodbye = interface.goodbye[indexOf(family)];
    auto const before = std::exchange(told, present);
    if (before && present && before->address.ipGenAddr() == address) continue;
    if (before) tellLink(name, *before, false, goodbye);
    goodbye.reset();
    if (present) tellLink(name, *present, true, {});
  }
}

void LiveSpeaker::tellLink(std::string const& name, Told const& told, bool isUp,
                           std::optional<bool> goodbye) {
  Json members = {{"state", isUp ? "up" : "down"},
                  {"interface", name},
                  {"address", toText(told.address)},
                  {"mtu", told.mtu}};
  if (!isUp) members["goodbye"] = goodbye.value_or(false);
  tell("interface", std::move(members));
}

// --- Packets

Speaker::Verdict LiveSpeaker::receive(Speaker::Incoming const& packet, std::span<U8 const> pimMessage) {
  if (hasEnded_) return Speaker::Verdict::unknownInterface;
  record(packetInput(packet, pimMessage));
  auto const verdict = speaker_->receive(packet, pimMessage);
  goOnQuitting();
  return verdict;
}

SendResult LiveSpeaker::sendOut(Speaker::Outgoing const& packet) {
  SendResult result{.sent = Speaker::Sent::failed, .now = now_, .reason = {}};
  try {
    result = outside_.send(packet);
  } catch (std::exception const& e) {
    result.reason = e.what();
  }
  nowIs(result.now);
  if (settings_.record) settings_.record(resultInput(result, now_));
  return result;
}

Speaker::Sent LiveSpeaker::send(Speaker::Outgoing const& packet) {
  SendResult const result = sendOut(packet);
  failure_ = result.reason;
  if (!isGoodbye(packet)) return result.sent;
  std::string const intf = packet.intf.name();
  if (auto const found = interfaces_.find(intf); found != interfaces_.end())
    found->second.goodbye[indexOf(packet.source.af())] = result.sent == Speaker::Sent::done;
  if (result.sent != Speaker::Sent::later) return result.sent;
  // The link does not try it again: it has ended.
  goodbyes_.push_back(
      {intf, packet.source, packet.destination, {packet.bytes.begin(), packet.bytes.end()}, now_ + quitting});
  goodbyesDue_ = now_ + goodbyeRetry;
  return result.sent;
}

void LiveSpeaker::sendGoodbyesAgain() {
  std::vector<Goodbye> left;
  for (auto& goodbye : std::exchange(goodbyes_, {})) {
    Dova::IntfId const intf(goodbye.intf);
    SendResult const result = sendOut({intf, goodbye.source, goodbye.destination, goodbye.bytes});
    if (result.sent == Speaker::Sent::done) continue;
    if (result.sent == Speaker::Sent::later && now_ < goodbye.until) {
      left.push_back(std::move(goodbye));
      continue;
    }
    tell("error",
         {{"what", fmt::format("goodbye on {} from {}", goodbye.intf, toText(goodbye.source))},
          {"reason", result.sent == Speaker::Sent::later ? "the system took it no sooner" : result.reason}});
  }
  goodbyes_ = std::move(left);
  goodbyesDue_ = now_ + goodbyeRetry;
}

// --- The end

void LiveSpeaker::quit(bool now) {
  if (hasEnded_) return;
  record(now ? "quit now" : "quit");
  beginQuitting(now);
}

void LiveSpeaker::beginQuitting(bool now) {
  if (hasEnded_) return;
  if (now) {
    quitBy_ = now_;
  } else if (!quitBy_) {
    quitBy_ = now_ + quitting;
    for (auto const& route : speaker_->upstream().routes())
      if (route.route.kind != Speaker::RouteKind::sourceRpt)
        speaker_->upstream().joinDel({route.route.source, route.route.group});
  }
  goOnQuitting();
}

void LiveSpeaker::goOnQuitting() {
  if (!quitBy_ || hasEnded_) return;
  if (now_ >= *quitBy_ || pending() == 0) end();
}

void LiveSpeaker::end() {
  hasEnded_ = true;
  speaker_->shutDown();
  for (auto& [name, interface] : interfaces_) tellLinks(name, interface);
}

std::size_t LiveSpeaker::pending() const {
  std::size_t groups = 0;
  for (auto const& neighbor : speaker_->neighbors()) {
    auto const* const link = speaker_->link(neighbor.intf.name(), neighbor.info.address.af());
    if (auto const data = link->triggered(neighbor.info.address)) groups += data->joinPruneGroupDataCount();
  }
  return groups;
}

// --- What the configuration and the outside have to say

void LiveSpeaker::policyIs(std::vector<std::string> const& rps, std::vector<std::string> const& denied) {
  RpTable table;
  for (auto const& text : rps) table.add(text);
  std::vector<IpGenPrefix> groups;
  for (auto const& text : denied) groups.push_back(groupPrefixFromText(text));
  record(policyInput(rps, denied));
  rps_ = std::move(table);
  denied_->are(groups);
}

void LiveSpeaker::counterIs(std::string const& name, U64 value) {
  record(fmt::format("counter {} {}", value, name));
  counters_[name] = value;
}

void LiveSpeaker::error(std::string_view what, std::string_view reason) {
  record(fmt::format("error {} {}", hexOf(what), hexOf(reason)));
  tell("error", {{"what", what}, {"reason", reason}});
}

}  // namespace Routing::Pim::Jpagent::Live
