// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/speaker/SpeakerWords.h"

#include "jpagent/simulate/speaker/SpeakerForms.h"
#include "jpagent/simulate/speaker/SpeakerWorld.h"

namespace Routing::Pim::Jpagent {

namespace {

using InterfaceSettings = SpeakerInterfaceSettings;

// What a conversation says of an interface and a system knows by itself, or nothing.
SpeakerInterfaceCommand::Change takeFact(Words& words) {
  if (words.taken("mtu")) {
    return [mtu = words.number<U32>(68, 65535, "an MTU in bytes")](InterfaceSettings& settings) {
      settings.mtu = mtu;
    };
  }
  if (words.taken("point-to-point")) {
    return [](InterfaceSettings& settings) { settings.pointToPoint = true; };
  }
  return {};
}

Command speakerInterface(Words& words) {
  SpeakerInterfaceCommand command;
  if (!words) words.fail("the name of an interface");
  command.name = words.take();
  while (words) {
    if (words.taken("up")) {
      command.up = true;
    } else if (words.taken("down")) {
      command.down = true;
    } else if (words.taken("gone")) {
      command.gone = true;
    } else if (words.taken("none")) {
      command.noAddress = true;
    } else if (auto change = takeSpeakerSetting(words)) {
      command.changes.push_back(std::move(change));
    } else if (auto fact = takeFact(words)) {
      command.changes.push_back(std::move(fact));
    } else {
      auto const address = IpGenPrefix::fromText(words.peek());
      if (!address || Wire::sourceFault(address->ipGenAddr(), address->ipGenAddr().af()))
        words.fail("an address such as 10.0.0.1/24, none, up, down, gone or a setting");
      command.addresses.push_back(*address);
      words.take();
    }
  }
  if (command.up + command.down + command.gone > 1) words.refuse("expected one of up, down and gone");
  bool const changes = command.up || command.down || command.noAddress || !command.addresses.empty() ||
                       !command.changes.empty();
  if (command.gone && changes) words.refuse("expected nothing beside gone");
  if (command.noAddress && !command.addresses.empty()) words.refuse("expected an address or none, not both");
  return SpeakerCommand{[command](SpeakerCommands& speaker) { speaker.interfaceIs(command); }};
}

// Of the table of conversations, which speak to such a world.
SpeakerWorld& worldOf(SpeakerCommands& speaker) { return static_cast<SpeakerWorld&>(speaker); }

IpGenAddr takeSender(Words& words) {
  words.require("from");
  return words.address("the address of a neighbor");
}

void takeHelloOption(Words& words, Wire::Hello& hello) {
  auto delay = hello.lanPruneDelay().value_or(Wire::LanPruneDelay());
  if (words.taken("hold")) {
    hello.holdTimeIs(words.number<U16>(0, 65535, "a hold time in seconds"));
  } else if (words.taken("generation")) {
    hello.generationIdIs(words.number<U32>(0, most32, "a generation ID"));
  } else if (words.taken("priority")) {
    hello.drPriorityIs(words.number<U32>(0, most32, "a DR priority"));
  } else if (words.taken("override")) {
    delay.overrideInterval = takeMilliseconds(words, mostMilliseconds);
    hello.lanPruneDelayIs(delay);
  } else if (words.taken("propagation")) {
    delay.propagationDelay = takeMilliseconds(words, Wire::Hello::maxPropagationDelay / 1000.0);
    hello.lanPruneDelayIs(delay);
  } else if (words.taken("tracking")) {
    delay.tracking = true;
    hello.lanPruneDelayIs(delay);
  } else if (words.taken("address")) {
    hello.addressAdd(words.address("another address of the neighbor"));
  } else {
    words.fail("hold, generation, priority, override, propagation, tracking or address");
  }
}

Command hello(Words& words) {
  auto const source = takeSender(words);
  words.require("on");
  if (!words) words.fail("the name of an interface");
  std::string const intf(words.take());
  Wire::Hello hello;
  try {
    while (words) takeHelloOption(words, hello);
    Wire::encodeHello(hello, source, Wire::allPimRouters(source.af()));  // says if it is too long
  } catch (std::range_error const& e) {
    words.refuse(fmt::format("expected a Hello that can be on the wire: {}", e.what()));
  }
  return SpeakerCommand{
      [source, intf, hello](SpeakerCommands& speaker) { worldOf(speaker).receive(intf, source, hello); }};
}

Command receiveFrom(Words& words) {
  if (!words) words.fail("the name of an interface");
  std::string const intf(words.take());
  auto const source = takeSender(words);
  SpeakerReceiveCommand const command{intf, source, takeMessage(words)};
  if (command.message.upstreamNeighbor().af() != source.af())
    words.refuse("expected a sender and an upstream neighbor of one family");
  return SpeakerCommand{[command](SpeakerCommands& speaker) { worldOf(speaker).receive(command); }};
}

Command showSpeaker(Words& words) {
  auto const subject = takeSpeakerSubject(words);
  return SpeakerCommand{[subject](SpeakerCommands& speaker) { speaker.show(subject); }};
}

constexpr Form ofSpeaker[] = {
    {"interface", speakerInterface, "NAME ADDRESS/LEN... | none | up | down | gone | SETTING...",
     "an interface comes up, changes, is down, is up again, or is removed; its settings: mtu BYTES, "
     "hello S, hello-hold S, hello-delay S, interval S, hold S, override S, propagation S, priority N, "
     "tracking on|off, point-to-point, and the limits neighbors N, routes N, neighbor-routes N"},
    {"hello", hello,
     "from ADDRESS on NAME [hold S] [generation N] [priority N] [override S] [propagation S] [tracking] "
     "[address A]...",
     "a Hello comes in, with the options that are named and no others"},
    {"receive", receiveFrom, "NAME from ADDRESS upstream ADDRESS hold S join ROUTE... prune ROUTE...",
     "a Join/Prune message comes in from a neighbor"},
    {"join", speakerJoin, "ROUTE via NEIGHBOR[%NAME] [assert]",
     "a route is wanted from an upstream neighbor, or from another one than before, which with \"assert\" "
     "an Assert has decided; ROUTE is (S,G), (*,G) rp ADDRESS, N routes from ROUTE, or N sources from ROUTE"},
    {"leave", speakerLeave, "ROUTE", "it is no longer wanted; a (*,G) may be without its RP"},
    {"prune", speakerPrune, "(S,G,rpt)", "a source is not wanted on the shared tree"},
    {"unprune", speakerUnprune, "(S,G,rpt)", "it is wanted there again"},
    {"rp", rp, "GROUP/LEN=ADDRESS", "the RP of groups; without one, the RP in a message is right"},
    {"deny", policyOn<Policy::deny>, "GROUP/LEN [off]", "groups are neither taken nor sent"},
    {"wait", wait, "S | until S", "time passes; every timer fires at its time"},
    {"busy", busy, "S", "time passes, and no timer is called"},
    {"cost", cost, "S", "the time that sending one message takes from now on"},
    {"packets", packets, "full | brief", "how Join/Prunes are shown from now on"},
    {"trace", trace, "LEVELS | off", "which trace lines of the engine are shown from now on"},
    {"show", showSpeaker, "interfaces | neighbors | upstream | downstream | counters", "what there is"},
    {"say", say, "TEXT", "a line in the output"},
};

}  // namespace

Command speaker(Words& words) {
  SpeakerStartCommand command;
  if (words.taken("seed")) command.seed = words.number<U32>(0, 0x7fffffff, "a number");
  return command;
}

std::span<Form const> speakerForms() { return ofSpeaker; }

}  // namespace Routing::Pim::Jpagent
