// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/Event.h"

#include <fmt/format.h>

namespace Routing::Pim::Jpagent::Live {

namespace {

// A value as a person reads it: texts without quotes, a list with blanks between its elements.
std::string plain(Json const& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_null()) return "-";
  if (!value.is_array()) return value.dump();
  std::string text;
  for (auto const& one : value) text += (text.empty() ? "" : " ") + plain(one);
  return text.empty() ? "-" : text;
}

std::string pairs(Json const& members) {
  std::string text;
  for (auto const& [name, value] : members.items())
    if (!value.is_object() && !(value.is_array() && !value.empty() && value.front().is_object()))
      text += fmt::format("{}{} {}", text.empty() ? "" : ", ", name, plain(value));
  return text;
}

std::string entriesText(Json const& entries) {
  std::string text;
  for (auto const& entry : entries) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", plain(entry["kind"]), plain(entry["route"]));
    if (entry.contains("rp")) text += " rp " + plain(entry["rp"]);
  }
  return text;
}

// "neighbor up: interface eth0, address 10.0.0.2, ...".
std::string eventText(Json members) {
  std::string text = plain(members["time"]) + ' ' + plain(members["event"]);
  members.erase("time");
  members.erase("event");
  if (members.contains("state")) text += ' ' + plain(members["state"]);
  members.erase("state");
  text += ": " + pairs(members);
  if (members.contains("entries")) text += ": " + entriesText(members["entries"]);
  return text;
}

std::string replyText(Event const& event) {
  Json const& members = event.members;
  if (!members["ok"].get<bool>()) return "error: " + plain(members["error"]);
  std::string text;
  for (auto const& line : event.lines) text += line + '\n';
  if (event.lines.empty() && members.contains("result"))
    for (auto const& row : members["result"]) text += pairs(row) + '\n';
  return text + "ok";
}

// What comes from outside may have any bytes, and a line must stay one.
std::string printable(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < ' ' && c != '\n') c = '?';
  return text;
}

}  // namespace

std::string jsonLine(Event const& event) {
  return event.members.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string textOf(Event const& event) {
  Json const& members = event.members;
  return printable(members["event"] == "reply" ? replyText(event) : eventText(members));
}

}  // namespace Routing::Pim::Jpagent::Live
