#include "jpagent/simulate/Conversation.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <map>
#include <system_error>

#include "runtime/vel/Exception.h"
#include "runtime/vel/Text.h"

namespace Routing::Pim::Jpagent {

namespace {

constexpr std::size_t shortestRule = 4;
constexpr std::size_t mostEntries = 65535 / 8;  // of a message: each takes eight bytes at the least
constexpr Seconds longestTime = 1e6;
constexpr std::size_t longestQuoted = 60;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool isRule(std::string_view line) {
  line = trimmed(line);
  return line.size() >= shortestRule && line.find_first_not_of('-') == line.npos;
}

// The lines of a text one by one, without the newlines; a last line needs none.
class Lines {
 public:
  explicit Lines(std::string_view text) : rest_(text) {}

  /// False at the end.
  bool next(std::string_view& line) {
    if (rest_.empty()) return false;
    auto const end = std::min(rest_.find('\n'), rest_.size());
    line = rest_.substr(0, end);
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    return true;
  }
  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
};

// The beginning of a word says which one it is; a message need not be as long as what it is about.
std::string quoted(std::string_view word) {
  return word.size() <= longestQuoted ? fmt::format("\"{}\"", word)
                                      : fmt::format("\"{}...\"", word.substr(0, longestQuoted));
}

class Words;
Command commandFrom(Words& words);

// The words of a command, taken one by one. Whoever takes one says what it must be.
class Words {
 public:
  Words(std::string_view text, U32 line) : Words(text, line, ownRoutes_, false) {}
  Words(Words const&) = delete;
  Words& operator=(Words const&) = delete;

  explicit operator bool() const { return !rest_.empty(); }

  std::string_view peek() const {
    return rest_.substr(
        0, static_cast<std::size_t>(std::find_if(rest_.begin(), rest_.end(), isBlank) - rest_.begin()));
  }
  std::string_view take() {
    auto const word = peek();
    rest_ = trimmed(rest_.substr(word.size()));
    return word;
  }
  std::string_view takeRest() { return std::exchange(rest_, {}); }
  /// Takes the next word if it is this one.
  bool taken(std::string_view word) {
    if (peek() != word || word.empty()) return false;
    take();
    return true;
  }
  void require(std::string_view word) {
    if (!taken(word)) fail(fmt::format("\"{}\"", word));
  }

  [[noreturn]] void fail(std::string_view expected) const {
    throw ConversationError(line_, rest_.empty()
                                       ? fmt::format("expected {} at the end of the line", expected)
                                       : fmt::format("expected {}, not {}", expected, quoted(peek())));
  }
  [[noreturn]] void refuse(std::string const& why) const { throw ConversationError(line_, why); }

  template <class Number>
  Number number(Number least, Number most, std::string_view what) {
    Number value{};
    if (!Vel::fromText(peek(), value) || !(value >= least && value <= most)) {
      fail(fmt::format("{} from {} to {}", what, least, most));
    }
    take();
    return value;
  }
  Seconds seconds() { return number<Seconds>(0, longestTime, "seconds"); }

  /// A command inside this one.
  void check(std::string_view command) const;
  bool inside() const { return inside_; }

  /// How many routes the ranges of the line have.
  U32 routes() const { return routes_; }
  void routesInc(U32 n) {
    if (n > mostRoutesOfLine - routes_)
      refuse(fmt::format("expected at most {} routes in the ranges of a line, not {}", mostRoutesOfLine,
                         routes_ + n));
    routes_ += n;
  }

  IpGenAddr address(std::string_view what) {
    auto const address = IpGenAddr::fromText(peek());
    if (!address) fail(what);
    take();
    return *address;
  }
  IpGenPrefix groups() {
    try {
      auto const groups = groupPrefixFromText(peek());
      take();
      return groups;
    } catch (OptionError const&) {
      fail("groups such as 239.1.0.0/16");
    }
  }

 private:
  Words(std::string_view text, U32 line, U32& routes, bool inside)
      : rest_(trimmed(text)), line_(line), inside_(inside), routes_(routes) {}

  std::string_view rest_;
  U32 const line_;
  bool const inside_;  // another command
  U32 ownRoutes_ = 0;
  U32& routes_;
};

// --- Routes

constexpr std::string_view entryForms =
    "a route such as (10.9.0.1,239.1.1.1), (*,239.1.1.1) rp 10.0.0.9 or (10.9.0.1,239.1.1.1,rpt)";

RouteEntry takeRoute(Words& words, bool join) {
  auto const word = words.peek();
  if (word.size() < 2 || word.front() != '(' || word.back() != ')') words.fail(entryForms);
  std::array<std::string_view, 3> parts;
  std::size_t count = 0;
  for (std::size_t at = 1; at < word.size(); ++count) {
    if (count == parts.size()) words.fail(entryForms);
    auto const end = std::min(word.find(',', at), word.size() - 1);
    parts[count] = word.substr(at, end - at);
    at = end + 1;
  }
  bool const rpt = count == 3 && parts[2] == "rpt";
  if (count != 2 && !rpt) words.fail(entryForms);
  bool const wildcard = !rpt && parts[0] == "*";
  auto const group = IpGenAddr::fromText(parts[1]);
  auto const source = wildcard ? group : IpGenAddr::fromText(parts[0]);
  if (!group || !source) words.fail(entryForms);
  if (Wire::groupFault(*group, group->af())) words.fail("a route to a multicast group");
  words.take();
  RouteEntry entry{join,
                   wildcard ? Wire::SourceKind::wildcard
                   : rpt    ? Wire::SourceKind::sourceRpt
                            : Wire::SourceKind::source,
                   *source, *group};
  if (wildcard) {
    words.require("rp");
    entry.source = words.address("the address of an RP");
  }
  if (Wire::sourceFault(entry.source, group->af())) {
    words.refuse(
        fmt::format("expected a source of the group's family that is unicast, not {}", toText(entry.source)));
  }
  return entry;
}

// The address so many further on, as a number; beyond the last one it begins again at zero.
IpGenAddr further(IpGenAddr const& address, U32 count) {
  auto const from = address.bytes();
  std::array<U8, 16> bytes;
  U64 sum = count;
  for (std::size_t i = from.size(); i-- > 0; sum >>= 8) bytes[i] = static_cast<U8>(sum += from[i]);
  return IpGenAddr::fromBytes({bytes.data(), from.size()});
}

RouteEntry routeOf(RouteRange const& range, U32 at) {
  RouteEntry entry = range.first;
  IpGenAddr& counted = range.sources ? entry.source : entry.group;
  counted = further(counted, at);
  return entry;
}

// Whether there is such a route. Those that there are lie side by side at the beginning of a range, since
// it is shorter than the blocks of addresses of either kind.
bool exists(RouteRange const& range, U32 at) {
  auto const entry = routeOf(range, at);
  bool const begunAgain = range.sources ? entry.source < range.first.source : entry.group < range.first.group;
  return !begunAgain && !Wire::groupFault(entry.group, entry.group.af()) &&
         !Wire::sourceFault(entry.source, entry.group.af());
}

// "3000 routes from (10.9.0.1,239.1.0.1)": a group each, counted upwards. "3000 sources from ...": a source
// each, all in one group.
RouteRange takeRange(Words& words, bool join) {
  RouteRange range;
  range.count = words.number<U32>(1, mostRoutesOfLine, "a number of routes");
  words.routesInc(range.count);
  range.sources = words.taken("sources");
  if (!range.sources && !words.taken("routes")) words.fail("\"routes\" or \"sources\"");
  words.require("from");
  range.first = takeRoute(words, join);
  if (range.sources && range.first.kind == Wire::SourceKind::wildcard)
    words.refuse("expected sources, and (*,G) has none");
  if (!exists(range, range.count - 1)) {
    U32 there = 0, missing = range.count - 1;
    while (missing - there > 1) {
      U32 const middle = there + (missing - there) / 2;
      (exists(range, middle) ? there : missing) = middle;
    }
    words.refuse(fmt::format("expected fewer: there is no {}", toText(routeOf(range, missing))));
  }
  return range;
}

// "join ROUTE... prune ROUTE...", one at the least, to the end of the line.
Routes takeEntries(Words& words) {
  Routes entries;
  do {
    bool const join = words.taken("join");
    if (!join && !words.taken("prune")) words.fail("\"join\" or \"prune\"");
    do {
      entries.add(words.peek().starts_with('(') ? RouteRange{takeRoute(words, join)}
                                                : takeRange(words, join));
    } while (words && words.peek() != "join" && words.peek() != "prune");
  } while (words);
  return entries;
}

// --- Commands

Command intf(Words& words) {
  IntfCommand command;
  if (!words) words.fail("the name of an interface");
  command.name = words.take();
  while (words) {
    if (words.taken("hold")) {
      command.holdTime = words.number<U16>(0, 65535, "a hold time in seconds");
    } else if (words.taken("interval")) {
      command.interval = words.number<U32>(1, 65535, "an interval in whole seconds");
    } else if (words.taken("override")) {
      command.overrideInterval = words.seconds();
    } else if (words.taken("mtu")) {
      command.mtu = words.number<U32>(68, 65535, "an MTU in bytes");
    } else if (words.taken("none")) {
      command.address = IpGenPrefix();
    } else if (words.taken("notify")) {
      command.notify = true;
    } else if (words.taken("down")) {
      command.down = true;
    } else if (words.taken("stay")) {
      command.stay = true;
    } else if (words.taken("renew")) {
      command.renew = true;
    } else if (words.taken("again")) {
      command.again = true;
    } else {
      auto const address = IpGenPrefix::fromText(words.peek());
      if (!address || Wire::sourceFault(address->ipGenAddr(), address->ipGenAddr().af())) {
        words.fail(
            "an address such as 10.0.0.1/24, none, hold, interval, override, mtu, notify, renew, again, "
            "stay or down");
      }
      command.address = address;
      words.take();
    }
  }
  return command;
}

Command neighbor(Words& words) {
  NeighborCommand command;
  auto const address = IpGenAddr::fromText(words.peek());
  if (!address || Wire::upstreamFault(*address)) words.fail("the address of a neighbor");
  command.address = *address;
  words.take();
  if (words.taken("down")) {
    command.down = true;
  } else if (words.taken("again")) {
    command.again = true;
  } else if (!words.taken("up")) {
    if (!words.taken("on")) words.fail("\"on\", \"down\", \"up\" or \"again\"");
    if (!words) words.fail("the name of an interface");
    command.intf = words.take();
  }
  return command;
}

Command rp(Words& words) {
  RpCommand command{std::string(words.take())};
  try {
    RpTable().add(command.text);
  } catch (OptionError const& e) {
    words.refuse(fmt::format("expected GROUP/LEN=ADDRESS: {}", e.what()));
  }
  return command;
}

template <Policy policy>
Command policyOn(Words& words) {
  auto const groups = words.groups();
  return PolicyCommand{policy, groups, words.taken("off")};
}

template <Channel channel>
Command data(Words& words) {
  DataCommand command{channel, words.address("the address of an upstream target"), Change::add, {}};
  auto const group = [&words, &command](Change change) {
    command.change = change;
    command.group = words.address("a group's address");
    if (Wire::groupFault(command.group, command.group.af())) words.refuse("expected a multicast group");
    return command;
  };
  if (words.taken("make")) {
    command.change = Change::make;
    return command;
  }
  if (words.taken("gone")) {
    command.change = Change::gone;
    return command;
  }
  if (words.taken("group")) return group(Change::group);
  if (words.taken("ungroup")) return group(Change::ungroup);
  if (words.taken("remove")) {
    if (words.taken("wildcard")) return group(Change::removeWildcard);
    command.change = Change::remove;
  } else if (words.taken("filled")) {
    command.change = Change::filled;
    command.all = words.taken("all");
  } else if (words.taken("again")) {
    command.change = Change::again;
    command.all = words.taken("all");
    if (!words) return command;
  }
  command.entries = takeEntries(words);
  return command;
}

// A message as a router builds it: each group once (RFC 7761, 4.9.5).
Wire::JoinPrune messageOf(IpGenAddr const& upstream, U16 holdTime, Routes const& entries) {
  Wire::JoinPrune message(upstream, holdTime);
  // First, so that no time is spent on what cannot be a message anyway.
  if (entries.size() > mostEntries)
    throw Vel::RangeException(fmt::format("{} entries do not fit an IP datagram", entries.size()));
  std::vector<IpGenAddr> groups;
  std::map<IpGenAddr, std::vector<RouteEntry>> entriesOf;
  for (auto const& entry : entries) {
    auto& list = entriesOf[entry.group];
    if (list.empty()) {
      if (groups.size() == Wire::JoinPrune::maxGroups)
        throw Vel::RangeException(fmt::format("more than {} groups", Wire::JoinPrune::maxGroups));
      groups.push_back(entry.group);
    }
    list.push_back(entry);
  }
  for (auto const& group : groups) {
    message.groupAdd(group);
    // Joins first: one that comes after prunes would move them all.
    for (auto const& entry : entriesOf[group])
      if (entry.join) message.joinAdd(entry.kind, entry.source);
    for (auto const& entry : entriesOf[group])
      if (!entry.join) message.pruneAdd(entry.kind, entry.source);
  }
  Wire::encodeJoinPrune(message, upstream, upstream);  // says if it is too long
  return message;
}

Command receive(Words& words) {
  if (!words) words.fail("the name of an interface");
  std::string const intfName(words.take());
  words.require("upstream");
  auto const upstream = words.address("the address of an upstream neighbor");
  words.require("hold");
  U16 const holdTime = words.number<U16>(0, 65535, "a hold time in seconds");
  auto const entries = takeEntries(words);
  try {
    return ReceiveCommand{intfName, messageOf(upstream, holdTime, entries)};
  } catch (Vel::RangeException const& e) {
    words.refuse(fmt::format("expected a message that can be on the wire: {}", e.what()));
  }
}

Command wait(Words& words) {
  if (words.inside()) words.refuse("expected no wait inside a temper: time passes while nothing is sent");
  bool const until = words.taken("until");
  return WaitCommand{words.seconds(), until};
}

Command seed(Words& words) { return SeedCommand{words.number<long>(0, 0x7fffffff, "a number")}; }

Command cost(Words& words) { return CostCommand{words.seconds()}; }

Command busy(Words& words) { return BusyCommand{words.seconds()}; }

Command keep(Words& words) {
  if (words.taken("nothing")) return KeepCommand{};
  return KeepCommand{words.address("the address of an upstream target, or \"nothing\"")};
}

Command record(Words& words) {
  bool const on = words.taken("on");
  if (!on && !words.taken("off")) words.fail("\"on\" or \"off\"");
  return RecordCommand{on};
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

Command set(Words& words) {
  SetCommand command;
  command.subject = words.take();
  command.attribute = words.take();
  command.value = words.take();
  if (command.value.empty()) words.fail("TARGET, INTF or machine, an attribute and its value");
  return command;
}

Command start(Words&) { return StartCommand{}; }
Command drop(Words&) { return DropCommand{}; }
Command show(Words& words) { return ShowCommand{words.taken("sets")}; }

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

struct Form {
  std::string_view word;
  Command (*parse)(Words& words);
  std::string_view arguments;
  std::string_view about;
};

constexpr Form forms[] = {
    {"intf", intf,
     "NAME [ADDRESS/LEN | none] [hold S] [interval S] [override S] [mtu BYTES] [notify] [renew] [again] "
     "[stay | down]",
     "an interface comes up, changes, repeats its address, becomes another object, is told of again, stays "
     "as it "
     "is, or goes down"},
    {"neighbor", neighbor, "ADDRESS on NAME | down | up | again",
     "a neighbor comes up, goes down, returns, is told of again"},
    {"rp", rp, "GROUP/LEN=ADDRESS", "the RP of groups; without one, the RP in a message is right"},
    {"deny", policyOn<Policy::deny>, "GROUP/LEN [off]", "the filter on receipt denies groups"},
    {"filter", policyOn<Policy::filter>, "GROUP/LEN [off]", "the packet manager filters groups"},
    {"suppress", policyOn<Policy::suppress>, "GROUP/LEN [off]", "the packet manager suppresses joins"},
    {"start", start, "", "makes the message machine over what is there"},
    {"drop", drop, "", "drops the message machine"},
    {"triggered", data<Channel::triggered>, "TARGET [remove] join ROUTE... prune ROUTE...",
     "changes what is pending for an upstream target"},
    {"override", data<Channel::override>,
     "TARGET make | gone | group G | ungroup G | remove wildcard G | filled [all] join ROUTE... | again "
     "[all] [join "
     "ROUTE...]",
     "the same; what else can become of it: the data set comes or goes, a group comes empty, or goes with "
     "what is "
     "in it, groups arrive filled, or are told of without a change: one by one, or as a whole"},
    {"periodic", data<Channel::periodic>, "TARGET [remove] join ROUTE... prune ROUTE...",
     "the same; ROUTE is (S,G), (*,G) rp ADDRESS, (S,G,rpt), or N routes from ROUTE (groups are counted "
     "upwards), or N sources from ROUTE (sources are): at most 1000000 in a line and 2000000 in a file"},
    {"receive", receive, "NAME upstream ADDRESS hold S join ROUTE... prune ROUTE...",
     "a Join/Prune message comes in"},
    {"wait", wait, "S | until S", "time passes; every timer fires at its time"},
    {"busy", busy, "S", "time passes while nobody looks at the timers"},
    {"seed", seed, "N", "seeds the random override delay"},
    {"cost", cost, "S", "the time that sending one message takes from now on"},
    {"set", set, "TARGET | NAME | machine ATTRIBUTE VALUE", "sets an attribute by name"},
    {"keep", keep, "TARGET | nothing", "the machine of a target is held, also when it is gone"},
    {"record", record, "on | off", "the transmit record is there or not"},
    {"temper", temper,
     "off | on [take N] [filtered N] [suppressed N] [tidy] [report SOURCES SUPPRESSED FILTERED] [throws "
     "MOMENT] "
     "[cost S] [MOMENT of N do COMMAND ; COMMAND...]",
     "another packet manager takes so many entries per message, calls some of them filtered or suppressed, "
     "removes empty groups, tells lies, throws, takes its time, or performs commands (not wait or temper on) "
     "at the first, middle or last moment of its message number N"},
    {"packets", packets, "full | brief", "how packets are shown from now on"},
    {"trace", trace, "LEVELS | off", "which trace lines of the engine are shown from now on"},
    {"show", show, "[sets]", "the machines, or what is pending entry by entry"},
    {"say", say, "TEXT", "a line in the output"},
};

Command commandFrom(Words& words) {
  for (auto const& form : forms) {
    if (!words.taken(form.word)) continue;
    auto command = form.parse(words);
    if (words) words.fail("the end of the line");
    return command;
  }
  words.fail("a command");
}

void Words::check(std::string_view command) const {
  Words words(command, line_, routes_, true);
  commandFrom(words);
}

}  // namespace

std::string toText(RouteEntry const& entry) {
  bool const wildcard = entry.kind == Wire::SourceKind::wildcard;
  auto const verb = entry.join ? "join" : "prune";
  if (wildcard) return fmt::format("{} (*,{}) rp {}", verb, toText(entry.group), toText(entry.source));
  return fmt::format("{} ({},{}{})", verb, toText(entry.source), toText(entry.group),
                     entry.kind == Wire::SourceKind::sourceRpt ? ",rpt" : "");
}

Routes::Iterator::Iterator(RouteRange const* range, RouteRange const* end) : range_(range), end_(end) {
  if (range_ != end_) entry_ = range_->first;
}

Routes::Iterator& Routes::Iterator::operator++() {
  if (++passed_ != range_->count) {
    IpGenAddr& counted = range_->sources ? entry_.source : entry_.group;
    counted = further(counted, 1);
  } else {
    passed_ = 0;
    if (++range_ != end_) entry_ = range_->first;
  }
  return *this;
}

void Routes::add(RouteRange const& range) {
  ranges_.push_back(range);
  size_ += range.count;
}

Command commandFromText(std::string_view text, U32 line) {
  Words words(text, line);
  return commandFrom(words);
}

std::string commandReference() {
  std::string text;
  for (auto const& form : forms)
    text += fmt::format("  {}{}{}\n      {}\n", form.word, form.arguments.empty() ? "" : " ", form.arguments,
                        form.about);
  return text;
}

Conversation::Conversation(std::string_view text) : text_(std::make_shared<std::string const>(text)) {
  Lines lines(*text_);
  std::string_view line;
  if (!lines.next(line) || !line.starts_with('#') || trimmed(line.substr(1)).empty()) {
    throw ConversationError(1, "expected a comment (#) that tells the story in one sentence");
  }
  story_ = trimmed(line.substr(1));
  U32 routes = 0;
  for (U32 at = 2; !hasRule() && lines.next(line); ++at) {
    line = trimmed(line);
    if (isRule(line)) {
      firstExpectedLine_ = at + 1;
    } else if (!line.empty() && line.front() != '#') {
      Words words(line, at);
      commandFrom(words);
      routes += words.routes();
      if (routes > mostRoutesOfFile)
        words.refuse(fmt::format("expected at most {} routes in the ranges of all lines up to here, not {}",
                                 mostRoutesOfFile, routes));
      steps_.push_back({at, line});
    }
  }
  expected_ = lines.rest();
  head_ = std::string_view(*text_).substr(0, text_->size() - expected_.size());
  if (steps_.empty()) throw ConversationError(0, "expected commands");
}

Conversation Conversation::fromFile(std::string const& path) {
  std::string text;
  errno = 0;
  try {
    std::ifstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(path, std::ios::binary);
    text.assign(std::istreambuf_iterator<char>(file), {});
  } catch (std::ios_base::failure const&) {  // a folder is refused only when it is read
    throw ConversationError(0, errno == 0 ? "cannot be read" : std::generic_category().message(errno));
  }
  return Conversation(text);
}

std::string Conversation::difference(std::string_view name, std::string_view output) const {
  constexpr std::size_t context = 3, shown = 6;
  Lines expected(expected_), came(output);
  std::vector<std::string_view> before;  // the last lines that are the same
  for (std::size_t same = 0;; ++same) {
    Lines const expectedRest = expected, cameRest = came;
    std::string_view line, other;
    bool const more = expected.next(line), moreCame = came.next(other);
    if (!more && !moreCame) return {};
    if (more && moreCame && line == other) {
      if (before.size() == context) before.erase(before.begin());
      before.push_back(line);
      continue;
    }
    std::string text = fmt::format("{}:{}: something else came out\n", name, firstExpectedLine_ + same);
    for (auto const& one : before) text += fmt::format("  {}\n", one);
    auto const tell = [&text](char sign, Lines lines) {
      std::string_view one;
      std::size_t told = 0, left = 0;
      for (; told < shown && lines.next(one); ++told) text += fmt::format("{} {}\n", sign, one);
      while (lines.next(one)) ++left;
      if (told == 0)
        text += fmt::format("{} (the end)\n", sign);
      else if (left != 0)
        text += fmt::format("{} ({} more)\n", sign, left);
    };
    tell('-', expectedRest);
    tell('+', cameRest);
    return text;
  }
}

std::string Conversation::withExpected(std::string_view output) const {
  std::string text(head_);
  if (!text.ends_with('\n')) text += '\n';
  if (!hasRule()) text += "----\n";
  return text.append(output);
}

}  // namespace Routing::Pim::Jpagent
