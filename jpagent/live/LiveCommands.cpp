// SPDX-License-Identifier: Apache-2.0
// What commands do.
#include <algorithm>
#include <cmath>

#include "jpagent/live/Inside.h"
#include "jpagent/live/LiveWords.h"
#include "jpagent/live/Recording.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

// A hold time that follows from an interval: as the timers of RFC 7761, 4.11 do, cut to whole seconds.
U16 holdTimeOf(Seconds interval) {
  return static_cast<U16>(std::clamp(std::floor(3.5 * interval), 1.0, Wire::endlessHoldTime - 1.0));
}

}  // namespace

std::optional<Reply> LiveSpeaker::command(std::string_view line, Asker asker) {
  line = trimmed(line);
  if (line.empty() || line.front() == '#') return std::nullopt;
  record(commandInput(line, asker));
  Reply made = reply(line, {});
  reply_ = &made;
  try {
    perform(line);
  } catch (std::exception const& e) {
    made = reply(line, e.what());
  }
  reply_ = nullptr;
  // What it took to send moved the clock.
  made.event.members["time"] = timeText();
  goOnQuitting();
  return made;
}

Reply LiveSpeaker::refuseCommand(std::string_view line, std::string_view error, Asker asker) {
  record(
      fmt::format("refuse {} {} {}", askerNames[static_cast<std::size_t>(asker)], hexOf(line), hexOf(error)));
  return reply(line, error);
}

// Without an error it is a good one.
Reply LiveSpeaker::reply(std::string_view line, std::string_view error) {
  Json members = {{"ok", error.empty()}, {"command", line}};
  if (!error.empty()) members["error"] = error;
  return {.ok = error.empty(), .event = made("reply", std::move(members)), .events = {}, .traceLevels = {}};
}

void LiveSpeaker::perform(std::string_view line) {
  Words words(line, 0, liveForms(), Subject::own);
  auto const command = commandFrom(words);
  constexpr U64 costOfChange = 10;  // of a route, in looks at one
  routesLookedAt_ += costOfChange * words.routes();
  constexpr std::string_view changing[] = {"join", "leave", "prune", "unprune", "interface"};
  auto const word = line.substr(0, line.find_first_of(" \t"));
  if (isQuitting() && std::find(std::begin(changing), std::end(changing), word) != std::end(changing))
    refuse("it is quitting");
  std::get<SpeakerCommand>(command).perform(*this);
}

void LiveSpeaker::requireInterface(std::string const& name) const {
  if (!interfaces_.contains(name)) refuse("there is no interface {}", name);
}

std::vector<SpeakerCommands::Place> LiveSpeaker::places() const {
  std::vector<Place> all;
  for (auto const& [name, interface] : interfaces_)
    all.push_back({name, interface.kernel ? interface.kernel->addresses : std::vector<IpGenPrefix>()});
  return all;
}

void LiveSpeaker::interfaceIs(SpeakerInterfaceCommand const& command) {
  requireInterface(command.name);
  Interface& interface = interfaces_.find(command.name)->second;
  Interface const before = interface;
  for (auto const& change : command.changes) change(interface.settings);
  auto& settings = interface.settings;
  if (!settings.helloHoldGiven) settings.hello.holdTime = holdTimeOf(settings.hello.period);
  if (!settings.holdGiven) settings.joinPruneHoldTime = holdTimeOf(settings.joinPruneInterval);
  if (command.up || command.down) interface.isDown = command.down;
  try {
    applyToSpeaker(command.name, interface);
  } catch (...) {
    interface = before;
    throw;
  }
  tellLinks(command.name, interface);
}

}  // namespace Routing::Pim::Jpagent::Live
