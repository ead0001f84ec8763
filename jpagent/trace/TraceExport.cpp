// SPDX-License-Identifier: Apache-2.0
#include "jpagent/trace/TraceExport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <set>
#include <tuple>

#include "jpagent/common/RingMessages.h"

namespace Routing::Pim::Jpagent {

namespace {

using Json = nlohmann::ordered_json;
using Scrivo::Event;
using Scrivo::EventKind;
using Scrivo::TraceReader;

using Nanoseconds = std::int64_t;

std::string_view trimmed(std::string_view text, std::string_view what) {
  auto const begin = text.find_first_not_of(what);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(what) - begin + 1);
}

// "Sending joins to " is "Sending joins".
std::string_view withoutPreposition(std::string_view text) {
  for (std::string_view const word : {" to", " of", " for", " on", " from"})
    if (text.ends_with(word)) return text.substr(0, text.size() - word.size());
  return text;
}

/// A message taken apart again: what happened, and the arguments with what they are.
class Message {
 public:
  Message(Event const& event, Scrivo::Descriptor const& descriptor) {
    std::string literal;
    auto argument = event.arguments.begin();
    for (auto const& piece : descriptor.pieces) {
      if (auto const* const text = std::get_if<std::string>(&piece)) {
        literal += *text;
        continue;
      }
      add(literal, *argument++);
      literal.clear();
    }
    if (name_.empty()) name_ = withoutClass(literal);
    if (name_.empty()) name_ = descriptor.source;
  }

  std::string const& name() const { return name_; }
  Json const& arguments() const { return arguments_; }
  std::optional<IpGenAddr> const& address() const { return address_; }
  std::string text(char const* argument) const {
    auto const found = arguments_.find(argument);
    return found != arguments_.end() && found->is_string() ? found->get<std::string>() : std::string();
  }

 private:
  // "JoinPruneNeighborSm: Sending joins to " begins with the class.
  static std::string_view withoutClass(std::string_view literal) {
    auto const colon = literal.find(": ");
    bool const isClass = colon != literal.npos && literal.find(' ') > colon && colon + 2 < literal.size();
    return trimmed(isClass ? literal.substr(colon + 2) : literal, ":,; ");
  }

  void add(std::string_view literal, Scrivo::Argument const& argument) {
    auto label = trimmed(literal, ":,; ");
    if (name_.empty()) {
      // The first words are what happened; the last of them alone may say what the argument is.
      auto const phrase = withoutClass(literal);
      name_ = withoutPreposition(phrase.substr(0, phrase.find(", ")));
      auto const parameter = phrase.rfind(", ");
      label = parameter != phrase.npos        ? phrase.substr(parameter + 2)
              : name_.size() != phrase.size() ? phrase.substr(name_.size() + 1)
                                              : phrase.substr(phrase.rfind(' ') + 1);
    }
    auto& arguments = arguments_.get_ref<Json::object_t&>();
    std::string key(label);
    number_ = std::max(number_, arguments.size());
    while (key.empty() || !names_.insert(key).second) key = fmt::format("{}#{}", label, ++number_);
    // At the end, for looking whether the name is there takes an object of this kind longer the more it has.
    if (auto const* const address = std::get_if<Dova::IpGenAddr>(&argument)) {
      if (!address_) address_ = *address;
      arguments.emplace_back(std::move(key), toText(*address));
    } else if (auto const* const text = std::get_if<std::string>(&argument)) {
      arguments.emplace_back(std::move(key), *text);
    } else {
      arguments.emplace_back(std::move(key), std::get<std::int64_t>(argument));
    }
  }

  std::string name_;
  Json arguments_ = Json::object();
  // Of arguments; those of putMessage() are taken.
  std::set<std::string, std::less<>> names_ = {"text", "source"};
  std::size_t number_ = 0;  // for the next argument whose name is taken
  std::optional<IpGenAddr> address_;
};

Message messageOf(TraceReader const& reader, Event const& event) {
  return Message(event, reader.descriptorOf(event));
}

/// The time of the picture at each moment of the cycle counter. It follows the counter, and jumps ahead
/// where a simulation moves its clock. It never decreases, though computing may take longer than the clock
/// says.
class Timeline {
 public:
  explicit Timeline(TraceReader const& reader)
      : nanosecondsPerCount_(1e9 / static_cast<double>(reader.countsPerSecond())) {
    bool first = true;
    for (auto const& event : reader.events()) {
      if (!isClock(event)) continue;
      Nanoseconds const clock =
          1000 * std::clamp(std::get<std::int64_t>(event.arguments[0]), -farthest / 1000, farthest / 1000);
      if (std::exchange(first, false))
        pieces_.push_back({event.counter, clock});
      else
        pieces_.push_back({event.counter, std::max(clock, at(event.counter))});
    }
    if (pieces_.empty() && !reader.events().empty()) {
      auto const event = reader.events()[0];
      pieces_.push_back({event.counter, bounded(event.seconds * 1e9)});
    }
  }

  static bool isClock(Event const& event) {
    return event.kind == EventKind::message && event.source == SIMULATION_SOURCE &&
           event.arguments.size() == 1 && std::holds_alternative<std::int64_t>(event.arguments[0]) &&
           event.text.starts_with(clockLiteral);
  }

  Nanoseconds at(Vel::U64 counter) const {
    auto piece = std::upper_bound(pieces_.begin(), pieces_.end(), counter,
                                  [](Vel::U64 one, Piece const& other) { return one < other.counter; });
    if (piece != pieces_.begin()) --piece;
    auto const counts = static_cast<double>(static_cast<std::int64_t>(counter - piece->counter));
    return std::clamp(piece->time + bounded(counts * nanosecondsPerCount_), -farthest, farthest);
  }

 private:
  // A damaged file has any numbers. Sums and differences of two times must have a place in 64 bits.
  static constexpr Nanoseconds farthest = Nanoseconds{1} << 61;
  static Nanoseconds bounded(double nanoseconds) {
    constexpr auto most = static_cast<double>(farthest);
    return static_cast<Nanoseconds>(std::llround(std::clamp(nanoseconds, -most, most)));
  }

  struct Piece {
    Vel::U64 counter;
    Nanoseconds time;
  };
  std::vector<Piece> pieces_;
  double nanosecondsPerCount_;
};

double microseconds(Nanoseconds time) { return static_cast<double>(time) / 1e3; }

// "JoinPruneNeighborSm::doUpdateTriggeredTimer" of the whole signature.
std::string shortSignature(std::string_view signature) {
  auto name = signature.substr(0, signature.find('('));
  name = name.substr(name.rfind(' ') + 1);
  for (std::string_view const space : {"Routing::", "Pim::"})
    if (name.starts_with(space)) name.remove_prefix(space.size());
  return std::string(name);
}

class ChromeWriter {
 public:
  ChromeWriter(TraceReader const& reader, std::ostream& out)
      : reader_(reader), timeline_(reader), out_(out) {}

  void write() {
    out_ << R"({"displayTimeUnit":"ns","traceEvents":[)";
    put({{"name", "process_name"}, {"ph", "M"}, {"pid", process}, {"args", {{"name", "Join/Prune engine"}}}});
    putTrack(engineTrack, "engine");
    findIntfs();
    // Viewers nest slices in the order in which they begin; the file has them in that in which they end.
    std::vector<Slice> slices;
    auto const events = reader_.events();
    for (std::size_t i = 0; i < events.size(); ++i) {
      auto const event = events[i];
      if (event.kind != EventKind::blockTimer) continue;
      auto const begin = event.counter - std::min(event.elapsed, event.counter);
      slices.push_back({timeline_.at(begin), timeline_.at(event.counter), i});
    }
    std::sort(slices.begin(), slices.end(), [](Slice const& a, Slice const& b) {
      return std::tie(a.begin, b.end, a.event) < std::tie(b.begin, a.end, b.event);
    });
    for (auto const& slice : slices) {
      if (!out_) return;
      putSlice(slice);
    }
    for (auto const& event : events) {
      if (!out_) return;
      if (event.kind == EventKind::message && !Timeline::isClock(event)) putMessage(event);
    }
    out_ << "\n]}\n";
  }

 private:
  struct Slice {
    Nanoseconds begin, end;
    std::size_t event;
  };

  static constexpr int process = 1, engineTrack = 1, messagesTrack = 2, firstNeighborTrack = 3;

  // The first message of a neighbor need not name the interface.
  void findIntfs() {
    for (auto const& event : reader_.events()) {
      if (event.kind != EventKind::message) continue;
      auto const message = messageOf(reader_, event);
      if (!message.address()) continue;
      auto& intf = intfs_[*message.address()];
      if (intf.empty()) intf = message.text("Intf");
    }
  }

  void put(Json const& object) {
    out_ << (std::exchange(anyEvent_, true) ? ",\n" : "\n")
         << object.dump(-1, ' ', false, Json::error_handler_t::replace);
  }

  void putTrack(int track, std::string const& name) {
    put({{"name", "thread_name"}, {"ph", "M"}, {"pid", process}, {"tid", track}, {"args", {{"name", name}}}});
    put({{"name", "thread_sort_index"},
         {"ph", "M"},
         {"pid", process},
         {"tid", track},
         {"args", {{"sort_index", track}}}});
  }

  void putSlice(Slice const& slice) {
    auto const event = reader_.events()[slice.event];
    put({{"name", shortSignature(event.text)},
         {"cat", "block"},
         {"ph", "X"},
         {"pid", process},
         {"tid", engineTrack},
         {"ts", microseconds(slice.begin)},
         {"dur", microseconds(slice.end - slice.begin)},
         {"args", {{"signature", event.text}, {"source", place(event)}, {"counts", event.elapsed}}}});
  }

  void putMessage(Event const& event) {
    auto const message = messageOf(reader_, event);
    int const track = trackOf(message);
    Nanoseconds const time = timeline_.at(event.counter);
    Json arguments = message.arguments();
    auto& members = arguments.get_ref<Json::object_t&>();
    members.emplace_back("text", event.text);
    members.emplace_back("source", place(event));
    put({{"name", message.name()},
         {"cat", "message"},
         {"ph", "i"},
         {"s", "t"},
         {"pid", process},
         {"tid", track},
         {"ts", microseconds(time)},
         {"args", std::move(arguments)}});
    if (event.source == SIMULATION_SOURCE && message.address()) putTimer(message, track, time);
  }

  // The time for which a timer runs.
  void putTimer(Message const& message, int track, Nanoseconds time) {
    for (std::size_t i = 0; i < timerEventNames.size(); ++i) {
      for (auto const sendKind : sendKindNames) {
        if (message.name() != fmt::format("{} the {} timer", timerEventNames[i], sendKind)) continue;
        auto const what = static_cast<TimerEvent>(i);
        auto const timer = fmt::format("{} timer of {}", sendKind, toText(*message.address()));
        // What ended the time before may have been overwritten.
        if (running_.erase(timer) != 0) putTimerEnd("e", timer, track, time, Json::object());
        if (what == TimerEvent::armed || what == TimerEvent::moved) {
          running_.insert(timer);
          putTimerEnd("b", timer, track, time, message.arguments());
        }
      }
    }
  }

  void putTimerEnd(char const* phase, std::string const& timer, int track, Nanoseconds time,
                   Json const& arguments) {
    put({{"name", timer},
         {"cat", "timer"},
         {"ph", phase},
         {"id", timer},
         {"pid", process},
         {"tid", track},
         {"ts", microseconds(time)},
         {"args", arguments}});
  }

  int trackOf(Message const& message) {
    if (!message.address()) {
      if (!std::exchange(anyWithoutAddress_, true)) putTrack(messagesTrack, "messages");
      return messagesTrack;
    }
    auto const [neighbor, isNew] =
        neighbors_.emplace(*message.address(), firstNeighborTrack + static_cast<int>(neighbors_.size()));
    if (isNew) {
      auto const& intf = intfs_[*message.address()];
      auto const address = toText(*message.address());
      putTrack(neighbor->second, intf.empty() ? address : fmt::format("{} on {}", address, intf));
    }
    return neighbor->second;
  }

  static std::string place(Event const& event) { return fmt::format("{} {}", event.source, event.line); }

  TraceReader const& reader_;
  Timeline const timeline_;
  std::ostream& out_;
  bool anyEvent_ = false, anyWithoutAddress_ = false;
  std::map<IpGenAddr, std::string> intfs_;
  std::map<IpGenAddr, int> neighbors_;
  std::set<std::string> running_;  // timers
};

}  // namespace

void exportText(TraceReader const& reader, std::ostream& out) {
  for (auto const& event : reader.events())
    if (!(out << event << '\n')) return;
}

void exportJson(TraceReader const& reader, std::ostream& out) {
  for (auto const& event : reader.events()) {
    bool const timer = event.kind == EventKind::blockTimer;
    Json object = {{"time", event.seconds},
                   {"kind", timer ? "block timer" : "message"},
                   {"source", event.source},
                   {"line", event.line},
                   {"text", event.text}};
    if (timer) {
      object["elapsed"] = event.elapsedSeconds;
      object["counts"] = event.elapsed;
    } else {
      object["arguments"] = messageOf(reader, event).arguments();
    }
    // Strings of a file need not be UTF-8.
    if (!(out << object.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n')) return;
  }
}

void exportChrome(TraceReader const& reader, std::ostream& out) { ChromeWriter(reader, out).write(); }

}  // namespace Routing::Pim::Jpagent
