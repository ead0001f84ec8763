// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/LiveWords.h"

#include "jpagent/live/LiveSpeaker.h"
#include "jpagent/simulate/speaker/SpeakerForms.h"

namespace Routing::Pim::Jpagent::Live {

// What the commands do that a conversation has not.
struct LiveForms {
  static Reply& replyOf(SpeakerCommands& speaker) { return *static_cast<LiveSpeaker&>(speaker).reply_; }

  static Command interface(Words& words) {
    SpeakerInterfaceCommand command;
    if (!words) words.fail("the name of an interface");
    command.name = words.take();
    if (words.taken("defaults"))
      command.changes.push_back([](SpeakerInterfaceSettings& settings) { settings = {}; });
    do {
      if (words.taken("up")) {
        command.up = true;
      } else if (words.taken("down")) {
        command.down = true;
      } else if (auto change = takeSpeakerSetting(words)) {
        command.changes.push_back(std::move(change));
      } else if (words || command.changes.empty()) {
        words.fail("up, down or a setting");
      }
    } while (words);
    if (command.up && command.down) words.refuse("expected one of up and down");
    return SpeakerCommand{[command](SpeakerCommands& speaker) { speaker.interfaceIs(command); }};
  }

  static Command show(Words& words) {
    auto const subject = takeSpeakerSubject(words);
    if (subject == SpeakerSubject::counters && words.taken("--prometheus")) {
      return SpeakerCommand{
          [](SpeakerCommands& speaker) { static_cast<LiveSpeaker&>(speaker).showPrometheus(); }};
    }
    return SpeakerCommand{[subject](SpeakerCommands& speaker) { speaker.show(subject); }};
  }

  static Command events(Words& words) {
    bool const on = words.taken("on");
    if (!on && !words.taken("off")) words.fail("\"on\" or \"off\"");
    return SpeakerCommand{[on](SpeakerCommands& speaker) { replyOf(speaker).events = on; }};
  }

  static Command levels(Words& words) {
    auto const command = std::get<TraceCommand>(trace(words));
    return SpeakerCommand{
        [command](SpeakerCommands& speaker) { replyOf(speaker).traceLevels = command.levels; }};
  }

  static Command quit(Words& words) {
    bool const now = words.taken("now");
    return SpeakerCommand{
        [now](SpeakerCommands& speaker) { static_cast<LiveSpeaker&>(speaker).beginQuitting(now); }};
  }

  static Command help(Words&) {
    return SpeakerCommand{[](SpeakerCommands& speaker) {
      Json rows = Json::array();
      for (auto const& form : liveForms()) {
        auto const usage =
            fmt::format("{}{}{}", form.word, form.arguments.empty() ? "" : " ", form.arguments);
        rows.push_back({{"command", usage}, {"about", form.about}});
      }
      replyOf(speaker).event.members["result"] = std::move(rows);
    }};
  }
};

namespace {

constexpr Form ofLive[] = {
    {"join", speakerJoin, "ROUTE via NEIGHBOR[%NAME]",
     "a route is wanted from an upstream neighbor, or from another one than before; ROUTE is (S,G), (*,G) "
     "rp ADDRESS, (*,G) if its RP is known, N routes from ROUTE (groups are counted upwards), or N sources "
     "from ROUTE"},
    {"leave", speakerLeave, "ROUTE", "it is no longer wanted"},
    {"prune", speakerPrune, "(S,G,rpt)", "a source is not wanted on the shared tree"},
    {"unprune", speakerUnprune, "(S,G,rpt)", "it is wanted there again"},
    {"interface", LiveForms::interface, "NAME [defaults] up | down | SETTING...",
     "an interface is up, is down, or has other settings: hello S, hello-hold S, hello-delay S, interval S, "
     "hold S, override S, propagation S, priority N, tracking on|off, and the limits neighbors N, routes N, "
     "neighbor-routes N; \"defaults\" first: all others as they were at the start"},
    {"show", LiveForms::show, "interfaces | neighbors | upstream | downstream | counters [--prometheus]",
     "what there is"},
    {"events", LiveForms::events, "on | off", "events are for this client too, or no longer"},
    {"trace", LiveForms::levels, "LEVELS | off", "which trace lines of the engine are shown from now on"},
    {"help", LiveForms::help, "", "these commands"},
    {"quit", LiveForms::quit, "[now]",
     "prunes and goodbyes are sent, or with \"now\" the goodbyes alone; then the end"},
};

}  // namespace

OwnForms liveForms() { return ofLive; }

std::string liveCommandReference() { return reference(ofLive); }

}  // namespace Routing::Pim::Jpagent::Live
