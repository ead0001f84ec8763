// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/Configuration.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>

#include "jpagent/common/Options.h"
#include "jpagent/common/Progress.h"
#include "jpagent/live/Interfaces.h"
#include "jpagent/live/LiveSpeaker.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

constexpr std::string_view knownSettings[] = {"hello",       "hello-hold",  "interval", "hold",    "override",
                                              "propagation", "hello-delay", "priority", "tracking"};

Place placeOf(toml::source_region const& region) { return {region.begin.line, region.begin.column}; }

// Reads a file into a configuration.
class Reader {
 public:
  explicit Reader(Configuration& to) : to_(to) {}

  void read(toml::table const& file) {
    for (auto const& [key, value] : file) {
      if (key == "control")
        to_.control = text(key, value);
      else if (key == "deny")
        each(key, value, [&](toml::node const& item) { deny(item); });
      else if (key == "rp")
        rps(key, value);
      else if (key == "interface")
        for (auto const& [name, settings] : table(key, value)) interface(name, settings);
      else if (key == "route")
        each(key, value, [&](toml::node const& item) { route(table(key, item)); });
      else
        unknown(key);
    }
  }

 private:
  [[noreturn]] void fail(toml::source_region const& region, std::string const& what) const {
    to_.fail(placeOf(region), what);
  }
  [[noreturn]] void unknown(toml::key const& key) const {
    fail(key.source(), fmt::format("unknown key \"{}\"", key.str()));
  }

  std::string text(toml::key const& key, toml::node const& value) const {
    auto const found = value.value_exact<std::string>();
    if (!found || found->empty() || found->find_first_of("\r\n") != found->npos)
      fail(value.source(), fmt::format("\"{}\" needs a text", key.str()));
    return *found;
  }
  toml::table const& table(toml::key const& key, toml::node const& value) const {
    if (auto const* const found = value.as_table()) return *found;
    fail(value.source(), fmt::format("\"{}\" needs a table", key.str()));
  }
  template <class Take>
  void each(toml::key const& key, toml::node const& value, Take const& take) const {
    auto const* const list = value.as_array();
    if (!list) fail(value.source(), fmt::format("\"{}\" needs a list", key.str()));
    for (auto const& item : *list) take(item);
  }

  // What an option of the command line would say of the same text.
  template <class Act>
  void asOption(toml::node const& value, Act const& act) const {
    try {
      act();
    } catch (OptionError const& e) {
      fail(value.source(), e.what());
    }
  }

  void deny(toml::node const& item) {
    auto const groups = item.value_exact<std::string>();
    if (!groups) fail(item.source(), "\"deny\" needs texts");
    asOption(item, [&] { groupPrefixFromText(*groups); });
    to_.denied.push_back(*groups);
  }

  void rps(toml::key const& key, toml::node const& value) {
    for (auto const& [groups, rp] : table(key, value)) {
      auto const option = fmt::format("{}={}", groups.str(), text(groups, rp));
      asOption(rp, [&] { rps_.add(option); });
      to_.rps.push_back(option);
    }
  }

  void interface(toml::key const& name, toml::node const& settings) {
    if (!canBeInterface(name.str()))
      fail(name.source(), fmt::format("\"{}\" cannot be the name of an interface", name.str()));
    auto& words = to_.interfaces[std::string(name.str())];
    for (auto const& [key, value] : table(name, settings)) {
      if (std::find(std::begin(knownSettings), std::end(knownSettings), key.str()) == std::end(knownSettings))
        unknown(key);
      std::string text;
      if (auto const whole = value.value_exact<std::int64_t>())
        text = fmt::format("{}", *whole);
      else if (auto const number = value.value_exact<double>())
        text = fmt::format("{}", *number);
      else if (auto const flag = value.value_exact<bool>())
        text = *flag ? "on" : "off";
      else
        fail(value.source(), fmt::format("\"{}\" needs a number, true or false", key.str()));
      words.push_back({fmt::format("{} {}", key.str(), text), placeOf(value.source())});
    }
  }

  void route(toml::table const& table) {
    std::string join, prune, rp, via;
    for (auto const& [key, value] : table) {
      std::string* const part = key == "join"    ? &join
                                : key == "prune" ? &prune
                                : key == "rp"    ? &rp
                                : key == "via"   ? &via
                                                 : nullptr;
      if (!part) unknown(key);
      *part = text(key, value);
    }
    if (join.empty() == prune.empty()) fail(table.source(), "a route needs either \"join\" or \"prune\"");
    if (join.empty() && !(rp.empty() && via.empty()))
      fail(table.source(), "\"prune\" has neither \"rp\" nor \"via\"");
    if (!join.empty() && via.empty()) fail(table.source(), "\"join\" needs \"via\"");
    auto const key = join.empty() ? "prune " + prune : "join " + join;
    auto const value =
        fmt::format("{}{}", rp.empty() ? "" : "rp " + rp + " ", via.empty() ? "" : "via " + via);
    if (!to_.routes.try_emplace(key, Configured{value, placeOf(table.source())}).second)
      fail(table.source(), fmt::format("\"{}\" again", key));
  }

  Configuration& to_;
  RpTable rps_;
};

std::string commandOf(std::string const& route, Configured const& rest) {
  return rest.words.empty() ? route : route + " " + rest.words;
}

std::string undoing(std::string const& route) {
  std::string_view const join = "join ", prune = "prune ";
  return route.starts_with(join) ? fmt::format("leave {}", route.substr(join.size()))
                                 : fmt::format("unprune {}", route.substr(prune.size()));
}

// All settings of an interface, so that others have their defaults.
std::string settingsOf(Configuration const& configuration, std::string const& name) {
  std::string command = fmt::format("interface {} defaults", name);
  auto const found = configuration.interfaces.find(name);
  if (found != configuration.interfaces.end())
    for (auto const& setting : found->second) command += " " + setting.words;
  return command;
}

// Has no packets and no events.
class Nowhere final : public LiveOutside {
 public:
  SendResult send(Speaker::Outgoing const&) override { return {}; }
  void event(Event const&) override {}
};

}  // namespace

void Configuration::fail(Place place, std::string const& what) const {
  throw ConfigurationError(fmt::format("{}:{}:{}: {}", file, place.line, place.column, what));
}

Configuration Configuration::fromFile(std::string const& path) {
  Configuration result;
  result.file = path;
  errno = 0;
  std::ifstream file(path);
  std::ostringstream bytes;
  if (file && file.peek() != EOF) bytes << file.rdbuf();
  if (errno != 0) throw ConfigurationError(fmt::format("{}: {}", path, std::strerror(errno)));
  try {
    Reader(result).read(toml::parse(bytes.view(), path));
  } catch (toml::parse_error const& e) {
    result.fail(placeOf(e.source()), std::string(e.description()));
  }
  return result;
}

std::vector<std::string> commandsBetween(Configuration const& before, Configuration const& after) {
  std::vector<std::string> commands;
  for (auto const& [route, rest] : before.routes)
    if (!after.routes.contains(route)) commands.push_back(undoing(route));
  std::set<std::string> names;
  for (auto const* const configuration : {&before, &after})
    for (auto const& [name, settings] : configuration->interfaces) names.insert(name);
  for (auto const& name : names) {
    auto const command = settingsOf(after, name);
    if (command != settingsOf(before, name)) commands.push_back(command);
  }
  for (auto const& [route, rest] : after.routes) {
    auto const known = before.routes.find(route);
    if (known == before.routes.end() || known->second.words != rest.words)
      commands.push_back(commandOf(route, rest));
  }
  return commands;
}

void check(Configuration const& configuration, std::vector<std::string> const& others) {
  Nowhere nowhere;
  LiveSpeaker speaker(0, nowhere, {});
  for (auto const& name : others) speaker.interfaceGiven(name);
  for (auto const& [name, settings] : configuration.interfaces) speaker.interfaceGiven(name);
  speaker.policyIs(configuration.rps, configuration.denied);
  auto const perform = [&](std::string const& command, Place place) {
    auto const reply = speaker.command(command, Asker::configuration);
    if (reply && !reply->ok) configuration.fail(place, reply->event.members.value("error", ""));
  };
  for (auto const& [name, settings] : configuration.interfaces) {
    for (auto const& setting : settings)
      perform(fmt::format("interface {} {}", name, setting.words), setting.place);
  }
  U64 done = 0;
  for (auto const& [route, rest] : configuration.routes) {
    Progress::at(done++, configuration.routes.size());
    perform(commandOf(route, rest), rest.place);
  }
}

}  // namespace Routing::Pim::Jpagent::Live
