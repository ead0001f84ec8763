// SPDX-License-Identifier: Apache-2.0
#include "tests/conversations/own/OwnCommands.h"

#include "jpagent/simulate/RouteWords.h"

namespace Routing::Pim::Jpagent {

namespace {

Command interface(Words& words) {
  bool stay = false, again = false;
  auto command = takeInterface(words, [&] {
    if (words.taken("stay")) return stay = true;
    if (words.taken("again")) return again = true;
    return false;
  });
  if (!stay && !again) return command;
  auto const made = std::make_shared<OwnInterfaceCommand>();
  made->command = std::move(command);
  made->stay = stay;
  made->again = again;
  return made;
}

Command neighbor(Words& words) {
  bool again = false;
  auto command = takeNeighbor(words, [&] { return again = words.taken("again"); });
  if (!again) return command;
  auto const made = std::make_shared<NeighborAgainCommand>();
  made->address = command.address;
  return made;
}

template <SendKind sendKind>
Command data(Words& words) {
  bool filled = false, again = false;
  auto command = takeData(words, sendKind, [&] {
    filled = words.taken("filled");
    again = !filled && words.taken("again");
    return filled || again;
  });
  if (!filled && !again) return command;
  auto const made = std::make_shared<OwnDataCommand>();
  made->command = std::move(command);
  made->filled = filled;
  made->all = words.taken("all");
  if (filled || words) made->command.entries = takeEntries(words);
  return made;
}

TemperCommand::Moment takeMoment(Words& words) {
  using Moment = TemperCommand::Moment;
  constexpr std::pair<std::string_view, Moment> moments[] = {
      {"first", Moment::first}, {"middle", Moment::middle}, {"last", Moment::last}};
  for (auto const& [word, moment] : moments)
    if (words.taken(word)) return moment;
  words.fail("\"first\", \"middle\" or \"last\"");
}

Command temper(Words& words) {
  constexpr U32 most = ~U32{0};
  auto const made = std::make_shared<TemperCommand>();
  TemperCommand& command = *made;
  if (words.taken("off")) return made;
  if (!words.taken("on")) words.fail("\"on\" or \"off\"");
  if (words.inside()) words.refuse("expected no temper inside a temper");
  command.on = true;
  while (words) {
    if (words.taken("take")) {
      command.take = words.number<U32>(0, most, "a number of entries");
    } else if (words.taken("filtered")) {
      command.filtered = words.number<U32>(0, most, "a number of entries");
    } else if (words.taken("suppressed")) {
      command.suppressed = words.number<U32>(0, most, "a number of entries");
    } else if (words.taken("tidy")) {
      command.tidy = true;
    } else if (words.taken("report")) {
      auto& report = command.report.emplace();
      for (U32* const count : {&report.sources, &report.suppressedSources, &report.filteredSources})
        *count = words.number<U32>(0, most, "a number of entries");
    } else if (words.taken("throws")) {
      command.throws = takeMoment(words);
    } else if (words.taken("cost")) {
      command.cost = words.seconds();
    } else if (words.peek() == "first" || words.peek() == "middle" || words.peek() == "last") {
      command.moment = takeMoment(words);
      words.require("of");
      command.message = words.number<U32>(1, most, "a message");
      words.require("do");
      // Whether they are commands is seen now; they are read again when they are performed.
      std::string_view rest = words.takeRest();
      while (!rest.empty()) {
        auto const end = std::min(rest.find(" ; "), rest.size());
        words.check(rest.substr(0, end));
        command.commands.emplace_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 3, rest.size()));
      }
    } else {
      words.fail("take, filtered, suppressed, tidy, report, throws, cost, first, middle or last");
    }
  }
  return made;
}

constexpr Form forms[] = {
    {"interface", interface, "", ""},
    {"neighbor", neighbor, "", ""},
    {"triggered", data<SendKind::triggered>, "", ""},
    {"override", data<SendKind::override>, "", ""},
    {"periodic", data<SendKind::periodic>, "", ""},
    {"temper", temper, "", ""},
};

}  // namespace

OwnForms ownForms() { return forms; }

}  // namespace Routing::Pim::Jpagent
