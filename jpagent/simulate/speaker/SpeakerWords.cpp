#include "jpagent/simulate/speaker/SpeakerWords.h"

#include <cmath>

#include "jpagent/simulate/RouteWords.h"
#include "jpagent/simulate/speaker/SpeakerWorld.h"

namespace Routing::Pim::Jpagent {

namespace {

using Speaker::InterfaceSettings;

constexpr U32 most32 = 0xffffffff;
constexpr double mostMilliseconds = 65.535;

U16 takeMilliseconds(Words& words, double most) {
  return static_cast<U16>(std::lround(words.number<Seconds>(0, most, "seconds") * 1000));
}

bool takeOnOrOff(Words& words) {
  bool const on = words.taken("on");
  if (!on && !words.taken("off")) words.fail("\"on\" or \"off\"");
  return on;
}

// A setting of Hellos, or nothing.
SpeakerInterfaceCommand::Change takeHelloSetting(Words& words) {
  if (words.taken("hello")) {
    return [period = words.number<Seconds>(0.001, 18724, "a Hello period in seconds")](
               InterfaceSettings& settings) { settings.hello.period = period; };
  }
  if (words.taken("hello-hold")) {
    return [hold = words.number<U16>(1, 65535, "a hold time in seconds")](InterfaceSettings& settings) {
      settings.hello.holdTime = hold;
    };
  }
  if (words.taken("hello-delay")) {
    return [delay = words.seconds()](InterfaceSettings& settings) { settings.hello.triggeredDelay = delay; };
  }
  if (words.taken("override")) {
    return [interval = takeMilliseconds(words, mostMilliseconds)](InterfaceSettings& settings) {
      settings.hello.lanPruneDelay.overrideInterval = interval;
    };
  }
  if (words.taken("propagation")) {
    return [delay = takeMilliseconds(words, Wire::Hello::maxPropagationDelay / 1000.0)](
               InterfaceSettings& settings) { settings.hello.lanPruneDelay.propagationDelay = delay; };
  }
  if (words.taken("priority")) {
    return [priority = words.number<U32>(0, most32, "a DR priority")](InterfaceSettings& settings) {
      settings.hello.drPriority = priority;
    };
  }
  if (words.taken("tracking")) {
    return [on = takeOnOrOff(words)](InterfaceSettings& settings) {
      settings.hello.lanPruneDelay.tracking = on;
    };
  }
  if (words.taken("neighbors")) {
    return [limit = words.number<U32>(0, most32, "a number of neighbors")](InterfaceSettings& settings) {
      settings.hello.maxNeighbors = limit;
    };
  }
  return {};
}

// Any other setting, or nothing.
SpeakerInterfaceCommand::Change takeSetting(Words& words) {
  if (words.taken("mtu")) {
    return [mtu = words.number<U32>(68, 65535, "an MTU in bytes")](InterfaceSettings& settings) {
      settings.mtu = mtu;
    };
  }
  if (words.taken("interval")) {
    return [interval = words.number<U32>(1, 65535, "an interval in whole seconds")](
               InterfaceSettings& settings) { settings.joinPruneInterval = interval; };
  }
  if (words.taken("hold")) {
    return [hold = words.number<U16>(1, 65535, "a hold time in seconds")](InterfaceSettings& settings) {
      settings.joinPruneHoldTime = hold;
    };
  }
  if (words.taken("routes")) {
    return [limit = words.number<U32>(0, most32, "a number of routes")](InterfaceSettings& settings) {
      settings.downstream.routes = limit;
    };
  }
  if (words.taken("neighbor-routes")) {
    return [limit = words.number<U32>(0, most32, "a number of routes")](InterfaceSettings& settings) {
      settings.downstream.routesOfNeighbor = limit;
    };
  }
  if (words.taken("point-to-point")) {
    return [](InterfaceSettings& settings) { settings.pointToPoint = true; };
  }
  return takeHelloSetting(words);
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
    } else if (auto change = takeSetting(words)) {
      command.changes.push_back(std::move(change));
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
  return SpeakerCommand{[command](SpeakerWorld& world) { world.interfaceIs(command); }};
}

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
  return SpeakerCommand{[source, intf, hello](SpeakerWorld& world) { world.receive(intf, source, hello); }};
}

Command receiveFrom(Words& words) {
  if (!words) words.fail("the name of an interface");
  std::string const intf(words.take());
  auto const source = takeSender(words);
  SpeakerReceiveCommand const command{intf, source, takeMessage(words)};
  if (command.message.upstreamNeighbor().af() != source.af())
    words.refuse("expected a sender and an upstream neighbor of one family");
  return SpeakerCommand{[command](SpeakerWorld& world) { world.receive(command); }};
}

bool isRpt(RouteEntry const& entry) {
  return Speaker::routeKindOf(entry.kind) == Speaker::RouteKind::sourceRpt;
}

RouteRange takeWanted(Words& words, bool rpIsOptional) {
  auto const routes = takeRoutes(words, true, rpIsOptional);
  if (isRpt(routes.first)) words.refuse("expected an (S,G) or a (*,G): an (S,G,rpt) is pruned and unpruned");
  return routes;
}

Command join(Words& words) {
  SpeakerJoinCommand command{.routes = takeWanted(words, false), .via = {}};
  words.require("via");
  auto const word = words.peek();
  auto const sign = word.find('%');
  auto const address = IpGenAddr::fromText(word.substr(0, sign));
  if (!address || Wire::sourceFault(*address, command.routes.first.group.af()))
    words.fail("the address of an upstream neighbor of the group's family, perhaps with %INTERFACE");
  command.via.address = *address;
  if (sign != word.npos) {
    command.via.intf = word.substr(sign + 1);
    if (command.via.intf.empty()) words.fail("the name of an interface after %");
  }
  words.take();
  command.assert = words.taken("assert");
  return SpeakerCommand{[command](SpeakerWorld& world) { world.join(command); }};
}

Command leave(Words& words) {
  auto const routes = takeWanted(words, true);
  return SpeakerCommand{[routes](SpeakerWorld& world) { world.leave(routes); }};
}

template <void (SpeakerWorld::*perform)(RouteRange const&)>
Command ofRpt(Words& words) {
  auto const routes = takeRoutes(words, false);
  if (!isRpt(routes.first)) words.refuse("expected an (S,G,rpt)");
  return SpeakerCommand{[routes](SpeakerWorld& world) { (world.*perform)(routes); }};
}

Command showSpeaker(Words& words) {
  constexpr std::pair<std::string_view, void (SpeakerWorld::*)()> subjects[] = {
      {"interfaces", &SpeakerWorld::showInterfaces}, {"neighbors", &SpeakerWorld::showNeighbors},
      {"upstream", &SpeakerWorld::showUpstream},     {"downstream", &SpeakerWorld::showDownstream},
      {"counters", &SpeakerWorld::showCounters},
  };
  for (auto const& subject : subjects)
    if (words.taken(subject.first))
      return SpeakerCommand{[show = subject.second](SpeakerWorld& world) { (world.*show)(); }};
  words.fail("interfaces, neighbors, upstream, downstream or counters");
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
    {"join", join, "ROUTE via NEIGHBOR[%NAME] [assert]",
     "a route is wanted from an upstream neighbor, or from another one than before, which with \"assert\" "
     "an Assert has decided; ROUTE is (S,G), (*,G) rp ADDRESS, N routes from ROUTE, or N sources from ROUTE"},
    {"leave", leave, "ROUTE", "it is no longer wanted; a (*,G) may be without its RP"},
    {"prune", ofRpt<&SpeakerWorld::prune>, "(S,G,rpt)", "a source is not wanted on the shared tree"},
    {"unprune", ofRpt<&SpeakerWorld::unprune>, "(S,G,rpt)", "it is wanted there again"},
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
