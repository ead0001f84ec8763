// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/speaker/SpeakerForms.h"

#include <algorithm>
#include <cmath>

#include "jpagent/simulate/RouteWords.h"

namespace Routing::Pim::Jpagent {

U16 takeMilliseconds(Words& words, double most) {
  return static_cast<U16>(std::lround(words.number<Seconds>(0, most, "seconds") * 1000));
}

namespace {

using InterfaceSettings = SpeakerInterfaceSettings;

bool takeOnOrOff(Words& words) {
  bool const on = words.taken("on");
  if (!on && !words.taken("off")) words.fail("\"on\" or \"off\"");
  return on;
}

// On the wire a hold time is in whole seconds, and 0 would end what it is for.
U16 takeHoldTime(Words& words) {
  return static_cast<U16>(
      std::max(1.0, std::floor(words.number<Seconds>(0, 65535, "a hold time in seconds"))));
}

// A setting of Hellos, or nothing.
SpeakerInterfaceCommand::Change takeHelloSetting(Words& words) {
  if (words.taken("hello")) {
    return [period = words.number<Seconds>(0.001, 18724, "a Hello period in seconds")](
               InterfaceSettings& settings) { settings.hello.period = period; };
  }
  if (words.taken("hello-hold")) {
    return [hold = takeHoldTime(words)](InterfaceSettings& settings) {
      settings.hello.holdTime = hold;
      settings.helloHoldGiven = true;
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

// A setting of Join/Prunes, or nothing.
SpeakerInterfaceCommand::Change takeJoinPruneSetting(Words& words) {
  if (words.taken("interval")) {
    return [interval = words.number<Seconds>(0.001, 65535, "an interval in seconds")](
               InterfaceSettings& settings) { settings.joinPruneInterval = interval; };
  }
  if (words.taken("hold")) {
    return [hold = takeHoldTime(words)](InterfaceSettings& settings) {
      settings.joinPruneHoldTime = hold;
      settings.holdGiven = true;
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
  return {};
}

bool isRpt(RouteEntry const& entry) {
  return Speaker::routeKindOf(entry.kind) == Speaker::RouteKind::sourceRpt;
}

RouteRange takeWanted(Words& words, bool rpIsOptional) {
  auto const routes = takeRoutes(words, true, rpIsOptional);
  if (isRpt(routes.first)) words.refuse("expected an (S,G) or a (*,G): an (S,G,rpt) is pruned and unpruned");
  return routes;
}

RouteRange takeRpt(Words& words) {
  auto const routes = takeRoutes(words, false);
  if (!isRpt(routes.first)) words.refuse("expected an (S,G,rpt)");
  return routes;
}

}  // namespace

SpeakerInterfaceCommand::Change takeSpeakerSetting(Words& words) {
  if (auto change = takeJoinPruneSetting(words)) return change;
  return takeHelloSetting(words);
}

SpeakerSubject takeSpeakerSubject(Words& words) {
  constexpr std::string_view names[] = {"interfaces", "neighbors", "upstream", "downstream", "counters"};
  for (std::size_t i = 0; i < std::size(names); ++i)
    if (words.taken(names[i])) return static_cast<SpeakerSubject>(i);
  words.fail("interfaces, neighbors, upstream, downstream or counters");
}

Command speakerJoin(Words& words) {
  SpeakerJoinCommand command{.routes = takeWanted(words, words.subject() == Subject::own), .via = {}};
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
  return SpeakerCommand{[command](SpeakerCommands& speaker) { speaker.join(command); }};
}

Command speakerLeave(Words& words) {
  auto const routes = takeWanted(words, true);
  return SpeakerCommand{[routes](SpeakerCommands& speaker) { speaker.leave(routes); }};
}

Command speakerPrune(Words& words) {
  auto const routes = takeRpt(words);
  return SpeakerCommand{[routes](SpeakerCommands& speaker) { speaker.prune(routes); }};
}

Command speakerUnprune(Words& words) {
  auto const routes = takeRpt(words);
  return SpeakerCommand{[routes](SpeakerCommands& speaker) { speaker.unprune(routes); }};
}

}  // namespace Routing::Pim::Jpagent
