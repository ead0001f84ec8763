// SPDX-License-Identifier: Apache-2.0
// Bytes as commands to a simulation, with the real packet manager: every packet keeps to the rules, and the
// same commands give the same lines when they are performed again.
#include "tests/conversations/own/OwnSimulation.h"

#include <sstream>

#include "fuzz/pim/speaker/Packets.h"

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

ReceiveCommand received(Input& input) {
  std::string const intf(oneOf(input, intfNames));
  IpGenAddr const upstream = unicast(input);
  Wire::JoinPrune message(upstream, input.u16());
  for (auto const& entry : entriesFrom(input)) {
    if (entry.group.af() != upstream.af()) continue;
    message.groupAdd(entry.group);
    message.entryAdd(entry.kind, entry.source);
  }
  return {intf, message};
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

// The MTU of each interface is the simulation's own affair, so this only knows the largest.
class CheckedPackets final : public Speaker::PacketSink {
 public:
  void send(Speaker::OutgoingPacket const& packet) override { Fuzz::requireGoodPacket(packet, 1500); }
};

std::string lines(U8 const* bytes, std::size_t size) {
  Input input(bytes, size);
  std::ostringstream out;
  CheckedPackets packets;
  OwnSimulation simulation(out, &packets);
  while (input) {
    try {
      simulation.perform(commandFrom(input));
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
