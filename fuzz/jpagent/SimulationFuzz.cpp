// SPDX-License-Identifier: Apache-2.0
// Bytes as commands to a simulation, with the real packet manager, of the engine or of a speaker: every
// packet keeps to the rules, and the same commands give the same lines when they are performed again.
#include "tests/conversations/own/OwnSimulation.h"

#include <sstream>

#include "fuzz/pim/speaker/Packets.h"
#include "jpagent/simulate/speaker/SpeakerWorld.h"

namespace {

using namespace Routing::Pim::Jpagent;
namespace Speaker = Routing::Pim::Speaker;
namespace Wire = Routing::Pim::Wire;
using Fuzz::Input;

constexpr std::string_view intfNames[] = {"eth0", "eth1", "eth2"};
constexpr std::string_view unicasts[] = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.1.1",
                                         "10.0.1.2", "fe80::1",  "fe80::2",  "fe80::3"};
constexpr std::string_view multicasts[] = {"239.1.1.1", "239.1.1.2", "239.1.2.1", "ff0e::1"};
constexpr U32 mtus[] = {68, 100, 150, 1500};
constexpr U32 intervals[] = {1, 2, 10, 60};

template <class T, std::size_t size>
T const& oneOf(Input& input, T const (&all)[size]) {
  return all[input.below(size)];
}

IpGenAddr unicast(Input& input) { return IpGenAddr(oneOf(input, unicasts)); }

RouteEntry entryFrom(Input& input) {
  U8 const how = input.u8();
  IpGenAddr const group(multicasts[(how >> 4) % std::size(multicasts)]);
  IpGenAddr source = unicast(input);
  if (source.af() != group.af()) source = IpGenAddr(group.isIpv4() ? "10.9.0.1" : "2001:db8::1");
  using Routing::Pim::EntryKind;
  constexpr EntryKind joins[] = {EntryKind::sourceJoin, EntryKind::wildcardJoin, EntryKind::sourceRptJoin};
  EntryKind const kind = joins[(how >> 1) % 3];
  return {how & 1 ? kind : pruneOf(kind), source, group};
}

Routes entriesFrom(Input& input) {
  Routes entries;
  U8 how = 0;
  do {
    auto const entry = entryFrom(input);
    how = input.u8();
    entries.add({entry, 1 + (how >> 1 & 3u), (how & 8) != 0 && !isWildcard(entry.kind)});
  } while (how & 1);
  return entries;
}

IpGenPrefix groupsFrom(Input& input) {
  IpGenAddr const group(oneOf(input, multicasts));
  return IpGenPrefix(group, static_cast<U8>(input.flag() ? group.width() : group.width() / 4 * 3));
}

Wire::JoinPrune messageFrom(Input& input) {
  IpGenAddr const upstream = unicast(input);
  Wire::JoinPrune message(upstream, input.u16());
  for (auto const& entry : entriesFrom(input)) {
    if (entry.group.af() != upstream.af()) continue;
    message.groupAdd(entry.group);
    message.entryAdd(entry.kind, entry.source);
  }
  return message;
}

ReceiveCommand received(Input& input) {
  std::string const intf(oneOf(input, intfNames));
  return {intf, messageFrom(input)};
}

InterfaceCommand intfFrom(Input& input) {
  InterfaceCommand command;
  command.name = oneOf(input, intfNames);
  U8 const what = input.u8();
  if (what & 1) command.address = IpGenPrefix(unicast(input), 24);
  if (what & 2) command.holdTime = input.u16();
  if (what & 4) command.interval = oneOf(input, intervals);
  if (what & 8) command.overrideInterval = input.u8() / 100.0;
  if (what & 16) command.mtu = oneOf(input, mtus);
  command.notify = what & 32;
  command.down = (what & 0xc0) == 0xc0;
  if ((what & 0xc0) == 0x80) command.address = IpGenPrefix();
  return command;
}

SetCommand settingFrom(Input& input) {
  constexpr std::string_view attributes[] = {"loopQuantum",       "triggeredInterval", "diagUpJoinCount",
                                             "joinPruneHoldTime", "neighborAddr",      "nothing"};
  constexpr std::string_view values[] = {"0", "1", "0.1", "0.5", "nan", "-1", "true", ""};
  std::string const subject(input.flag() ? oneOf(input, unicasts) : input.flag() ? "machine" : "eth0");
  return {subject, std::string(oneOf(input, attributes)), std::string(oneOf(input, values))};
}

Command temperFrom(Input& input) {
  using Moment = TemperCommand::Moment;
  constexpr std::string_view commands[] = {"neighbor 10.0.0.2 down",
                                           "drop",
                                           "start",
                                           "record off",
                                           "temper off",
                                           "busy 0.2",
                                           "interface eth0 down",
                                           "triggered 10.0.0.3 join (10.9.0.1,239.1.1.1)",
                                           "periodic 10.0.0.2 join 9 routes from (10.9.0.1,239.1.1.1)"};
  auto const made = std::make_shared<TemperCommand>();
  TemperCommand& command = *made;
  U8 const how = input.u8();
  command.on = how & 3;
  if (how & 4) command.take = input.below(4);
  command.tidy = how & 8;
  if (how & 16) command.report.emplace().sources = 1;
  command.throws = static_cast<Moment>(how >> 5 & 3);
  command.moment = static_cast<Moment>(input.below(4));
  command.message = 1 + input.below(3);
  while (input.flag()) command.commands.emplace_back(oneOf(input, commands));
  return made;
}

Command commandFrom(Input& input) {
  switch (input.below(18)) {
    case 0:
    case 1:
      return intfFrom(input);
    case 2:
    case 3: {
      NeighborCommand command{unicast(input), {}, false};
      U8 const how = input.u8();
      if (how & 1) command.intf = oneOf(input, intfNames);
      command.down = (how & 6) == 6;
      return command;
    }
    case 4:
      return RpCommand{input.flag() ? "239.0.0.0/8=10.0.0.9" : "ff00::/8=2001:db8::9"};
    case 5: {
      auto const policy = static_cast<Policy>(input.below(3));
      return PolicyCommand{policy, groupsFrom(input), input.flag()};
    }
    case 6:
    case 7:
    case 8:
    case 9: {
      auto const sendKind = static_cast<SendKind>(input.below(3));
      IpGenAddr const target = unicast(input);
      Change const change = input.below(4) == 3 ? Change::remove : Change::add;
      return DataCommand{
          .sendKind = sendKind, .target = target, .change = change, .entries = entriesFrom(input)};
    }
    case 10:
      return received(input);
    case 11:
      return WaitCommand{input.u8() / 50.0, false};
    case 12:
      return WaitCommand{static_cast<double>(input.below(32)), false};
    case 13:
      return CostCommand{input.below(16) / 50.0};
    case 14:
      return settingFrom(input);
    case 15:
      return StartCommand{};
    case 16:
      if (input.flag()) return DropCommand{};
      return ShowCommand{input.flag()};
    default:
      switch (input.below(5)) {
        case 0:
          return TraceCommand{{2, 7}};
        case 1:
          return SeedCommand{input.u8()};
        case 2:
          return temperFrom(input);
        case 3:
          return RecordCommand{input.flag()};
        default:
          return PacketsCommand{input.flag()};
      }
  }
}

// --- Commands to a speaker

// Of inputs that begin so, all commands are to a speaker.
constexpr U8 speaks = 'S';

Command toWorld(std::function<void(SpeakerWorld&)> perform) {
  return SpeakerCommand{[perform = std::move(perform)](SpeakerCommands& speaker) {
    perform(dynamic_cast<SpeakerWorld&>(speaker));
  }};
}

// Up to four changes of settings.
std::vector<SpeakerInterfaceCommand::Change> changesFrom(Input& input) {
  using Settings = SpeakerInterfaceSettings;
  constexpr Seconds periods[] = {1, 2.5, 30, 60};
  std::vector<SpeakerInterfaceCommand::Change> changes;
  for (U32 left = input.below(5); left != 0; --left) {
    U32 const what = input.below(8);
    U8 const value = input.u8();
    changes.emplace_back([=](Settings& settings) {
      switch (what) {
        case 0:
          settings.hello.period = periods[value % 4];
          return;
        case 1:
          settings.hello.triggeredDelay = value % 8;
          return;
        case 2:
          settings.joinPruneInterval = periods[value % 4];
          return;
        case 3:
          settings.joinPruneHoldTime = value;
          return;
        case 4:
          settings.hello.lanPruneDelay = {.tracking = (value & 1) != 0,
                                          .propagationDelay = static_cast<U16>(value * 4),
                                          .overrideInterval = static_cast<U16>(value * 16)};
          return;
        case 5:
          settings.mtu = mtus[value % 4];
          return;
        case 6:
          settings.hello.maxNeighbors = value % 4;
          settings.downstream.routes = value / 4;
          return;
        default:
          settings.pointToPoint = value & 1;
      }
    });
  }
  return changes;
}

SpeakerInterfaceCommand speakerIntfFrom(Input& input) {
  SpeakerInterfaceCommand command;
  command.name = oneOf(input, intfNames);
  U8 const what = input.u8();
  for (U32 left = what & 3; left != 0; --left) command.addresses.emplace_back(unicast(input), 24);
  command.noAddress = command.addresses.empty() && (what & 4);
  command.up = (what & 0x18) == 8;
  command.down = (what & 0x18) == 16;
  command.gone = (what & 0xe0) == 0xe0;
  if (what & 32) command.changes = changesFrom(input);
  return command;
}

Command helloFrom(Input& input) {
  std::string const intf(oneOf(input, intfNames));
  IpGenAddr const source = unicast(input);
  Wire::Hello hello;
  U8 const what = input.u8();
  if (what & 1) hello.holdTimeIs(input.u16());
  if (what & 2) hello.generationIdIs(input.u8());
  if (what & 4) hello.drPriorityIs(input.u8());
  if (what & 8)
    hello.lanPruneDelayIs(
        Wire::LanPruneDelay{(what & 16) != 0, input.u8(), static_cast<U16>(input.u8() * 16)});
  for (U32 left = what >> 6; left != 0; --left) hello.addressAdd(unicast(input));
  return toWorld([=](SpeakerWorld& world) { world.receive(intf, source, hello); });
}

Command messageToSpeakerFrom(Input& input) {
  std::string const intf(oneOf(input, intfNames));
  IpGenAddr const source = unicast(input);
  SpeakerReceiveCommand const command{intf, source, messageFrom(input)};
  if (command.message.upstreamNeighbor().af() != source.af()) return SayCommand{"of two families"};
  return toWorld([=](SpeakerWorld& world) { world.receive(command); });
}

// A few routes of a kind.
RouteRange routesFrom(Input& input, bool areRpt) {
  RouteEntry entry = entryFrom(input);
  using Routing::Pim::EntryKind;
  if (areRpt)
    entry.kind = EntryKind::sourceRptPrune;
  else if (entry.kind != EntryKind::wildcardJoin)
    entry.kind = EntryKind::sourceJoin;
  U8 const how = input.u8();
  return {entry, 1 + (how & 3u), (how & 4) != 0 && !isWildcard(entry.kind)};
}

SpeakerJoinCommand joinFrom(Input& input) {
  SpeakerJoinCommand command{.routes = routesFrom(input, false), .via = {unicast(input), {}}};
  U8 const how = input.u8();
  if (how & 3) command.via.intf = oneOf(input, intfNames);
  command.assert = (how & 12) == 12;
  return command;
}

Command speakerCommandFrom(Input& input) {
  auto const withRoutes = [&](void (SpeakerCommands::*perform)(RouteRange const&), bool areRpt) {
    return SpeakerCommand{[perform, routes = routesFrom(input, areRpt)](SpeakerCommands& speaker) {
      (speaker.*perform)(routes);
    }};
  };
  switch (input.below(16)) {
    case 0:
    case 1:
      return toWorld([command = speakerIntfFrom(input)](SpeakerWorld& world) { world.interfaceIs(command); });
    case 2:
    case 3:
      return helloFrom(input);
    case 4:
    case 5:
      return messageToSpeakerFrom(input);
    case 6:
    case 7:
    case 8:
      return SpeakerCommand{[command = joinFrom(input)](SpeakerCommands& speaker) { speaker.join(command); }};
    case 9:
      return withRoutes(&SpeakerCommands::leave, false);
    case 10:
      return withRoutes(&SpeakerCommands::prune, true);
    case 11:
      return withRoutes(&SpeakerCommands::unprune, true);
    case 12:
      return WaitCommand{input.u8() / 50.0, false};
    case 13:
      return WaitCommand{static_cast<double>(input.below(128)), false};
    case 14:
      return SpeakerCommand{[subject = static_cast<SpeakerSubject>(input.below(5))](
                                SpeakerCommands& speaker) { speaker.show(subject); }};
    default:
      switch (input.below(5)) {
        case 0:
          return RpCommand{input.flag() ? "239.0.0.0/8=10.0.0.9" : "ff00::/8=2001:db8::9"};
        case 1:
          return PolicyCommand{Policy::deny, groupsFrom(input), input.flag()};
        case 2:
          return CostCommand{input.below(16) / 50.0};
        case 3:
          return BusyCommand{input.below(16) / 4.0};
        default:
          return TraceCommand{{2, 7}};
      }
  }
}

// The MTU of each interface is the simulation's own affair, so this only knows the largest.
class CheckedPackets final : public Speaker::PacketSink {
 public:
  void send(Speaker::OutgoingPacket const& packet) override {
    if (!Wire::isPimType(packet.bytes, Wire::PimType::hello)) return Fuzz::requireGoodPacket(packet, 1500);
    auto const decoded = Wire::decodeHello(packet.bytes, packet.source, packet.destination);
    FUZZ_REQUIRE(std::holds_alternative<Wire::Hello>(decoded));
  }
};

std::string lines(U8 const* bytes, std::size_t size) {
  Input input(bytes, size);
  std::ostringstream out;
  CheckedPackets packets;
  OwnSimulation simulation(out, &packets);
  bool const isToSpeaker = size != 0 && *bytes == speaks;
  if (isToSpeaker) simulation.perform(SpeakerStartCommand{input.u8()});
  while (input) {
    try {
      simulation.perform(isToSpeaker ? speakerCommandFrom(input) : commandFrom(input));
    } catch (std::range_error const& error) {
      out << error.what() << '\n';
      continue;
    }
    FUZZ_REQUIRE(simulation.everyTimerIsTold());
  }
  return out.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t size) {
  std::string const once = lines(bytes, size);
  std::string const twice = lines(bytes, size);
  if (twice != once) std::fprintf(stderr, "ONCE\n%s\nTWICE\n%s\n", once.c_str(), twice.c_str());
  FUZZ_REQUIRE(twice == once);
  return 0;
}
