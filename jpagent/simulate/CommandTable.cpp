// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/CommandTable.h"

#include "jpagent/simulate/speaker/SpeakerWords.h"

namespace Routing::Pim::Jpagent {

Command wait(Words& words) {
  if (words.inside())
    words.refuse("expected no wait inside another command: time passes while nothing is sent");
  bool const until = words.taken("until");
  return WaitCommand{words.seconds(), until};
}

Command cost(Words& words) { return CostCommand{words.seconds()}; }

Command busy(Words& words) { return BusyCommand{words.seconds()}; }

namespace {

Command seed(Words& words) { return SeedCommand{words.number<long>(0, 0x7fffffff, "a number")}; }

Command keep(Words& words) {
  if (words.taken("nothing")) return KeepCommand{};
  return KeepCommand{words.address("the address of an upstream target, or \"nothing\"")};
}

Command record(Words& words) {
  bool const on = words.taken("on");
  if (!on && !words.taken("off")) words.fail("\"on\" or \"off\"");
  return RecordCommand{on};
}

Command set(Words& words) {
  SetCommand command;
  command.subject = words.take();
  command.attribute = words.take();
  command.value = words.take();
  if (command.value.empty()) words.fail("TARGET, NAME or machine, an attribute and its value");
  return command;
}

Command start(Words&) { return StartCommand{}; }

Command drop(Words&) { return DropCommand{}; }

Command show(Words& words) { return ShowCommand{words.taken("sets")}; }

}  // namespace

Command trace(Words& words) {
  if (words.taken("off")) return TraceCommand{};
  try {
    TraceCommand command{traceLevelsFromText(words.peek())};
    words.take();
    return command;
  } catch (OptionError const&) {
    words.fail("trace levels from 1 to 30, such as 1,2,7, or \"off\"");
  }
}

Command packets(Words& words) {
  bool const brief = words.taken("brief");
  if (!brief && !words.taken("full")) words.fail("\"brief\" or \"full\"");
  return PacketsCommand{brief};
}

Command say(Words& words) {
  if (!words) words.fail("a text");
  return SayCommand{std::string(words.takeRest())};
}

namespace {

Command interface(Words& words) { return takeInterface(words); }

Command neighbor(Words& words) { return takeNeighbor(words); }

constexpr Form forms[] = {
    {"interface", interface,
     "NAME [ADDRESS/LEN | none] [hold S] [interval S] [override S] [mtu BYTES] [notify] [renew] [down]",
     "an interface comes up, changes, repeats its address, becomes another object, or is down"},
    {"neighbor", neighbor, "ADDRESS on NAME | down | up", "a neighbor comes up, is down, is up again"},
    {"rp", rp, "GROUP/LEN=ADDRESS", "the RP of groups; without one, the RP in a message is right"},
    {"deny", policyOn<Policy::deny>, "GROUP/LEN [off]", "the filter on receipt denies groups"},
    {"filter", policyOn<Policy::filter>, "GROUP/LEN [off]", "the packet manager filters groups"},
    {"suppress", policyOn<Policy::suppress>, "GROUP/LEN [off]", "the packet manager suppresses joins"},
    {"start", start, "", "makes the message machine over what is there"},
    {"drop", drop, "", "drops the message machine"},
    {"triggered", dataOf<SendKind::triggered>, "TARGET [remove] join ROUTE... prune ROUTE...",
     "changes what is pending for an upstream target"},
    {"override", dataOf<SendKind::override>, "TARGET make | gone | group G | ungroup G | remove wildcard G",
     "the same; the data set is made or removed, a group is added empty, or removed with "
     "what "
     "is in it"},
    {"periodic", dataOf<SendKind::periodic>, "TARGET [remove] join ROUTE... prune ROUTE...",
     "the same; ROUTE is (S,G), (*,G) rp ADDRESS, (S,G,rpt), or N routes from ROUTE (groups are counted "
     "upwards), or N sources from ROUTE (sources are): at most 1000000 in a line and 2000000 in a file"},
    {"receive", receive, "NAME upstream ADDRESS hold S join ROUTE... prune ROUTE...",
     "a Join/Prune message comes in"},
    {"wait", wait, "S | until S", "time passes; every timer fires at its time"},
    {"busy", busy, "S", "time passes, and no timer is called"},
    {"seed", seed, "N", "seeds the random override delay"},
    {"cost", cost, "S", "the time that sending one message takes from now on"},
    {"set", set, "TARGET | NAME | machine ATTRIBUTE VALUE", "sets an attribute by name"},
    {"keep", keep, "TARGET | nothing", "the machine of a target is held, also after it was removed"},
    {"record", record, "on | off", "the transmit record is there or not"},
    {"packets", packets, "full | brief", "how packets are shown from now on"},
    {"trace", trace, "LEVELS | off", "which trace lines of the engine are shown from now on"},
    {"show", show, "[sets]", "the machines, or what is pending entry by entry"},
    {"say", say, "TEXT", "a line in the output"},
    {"speaker", speaker, "[seed N]",
     "as the first command: the others speak to a speaker, which sends Hellos and keeps neighbors and "
     "routes"},
};

std::array<OwnForms, 2> tablesOf(Words const& words) {
  if (words.subject() == Subject::speaker) return {speakerForms(), {}};
  if (words.subject() == Subject::own) return {words.own(), {}};
  return {words.own(), forms};
}

}  // namespace

std::string reference(OwnForms table) {
  std::string text;
  for (auto const& form : table)
    text += fmt::format("  {}{}{}\n      {}\n", form.word, form.arguments.empty() ? "" : " ", form.arguments,
                        form.about);
  return text;
}

Command commandFrom(Words& words) {
  for (OwnForms const table : tablesOf(words)) {
    for (auto const& form : table) {
      if (!words.taken(form.word)) continue;
      auto command = form.parse(words);
      if (words) words.fail("the end of the line");
      return command;
    }
  }
  words.fail("a command");
}

Command commandFromText(std::string_view text, U32 line, OwnForms own, Subject subject) {
  Words words(text, line, own, subject);
  return commandFrom(words);
}

std::string commandReference() { return reference(forms); }

std::string speakerCommandReference() { return reference(speakerForms()); }

}  // namespace Routing::Pim::Jpagent
