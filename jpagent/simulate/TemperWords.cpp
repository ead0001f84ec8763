// The command that puts another packet manager in place.
#include "jpagent/simulate/CommandTable.h"

namespace Routing::Pim::Jpagent {

namespace {

TemperCommand::Moment takeMoment(Words& words) {
  using Moment = TemperCommand::Moment;
  constexpr std::pair<std::string_view, Moment> moments[] = {
      {"first", Moment::first}, {"middle", Moment::middle}, {"last", Moment::last}};
  for (auto const& [word, moment] : moments)
    if (words.taken(word)) return moment;
  words.fail("\"first\", \"middle\" or \"last\"");
}

}  // namespace

Command temper(Words& words) {
  constexpr U32 most = ~U32{0};
  TemperCommand command;
  if (words.taken("off")) return command;
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
  return command;
}

}  // namespace Routing::Pim::Jpagent
