// Conversations: a text file with commands and, under a rule, everything that came out.
//
//     # A triggered join goes out 0.1 s after the route changed.
//     intf eth0 10.0.0.1/24
//     neighbor 10.0.0.2 on eth0
//     start
//     triggered 10.0.0.2 join (10.9.0.1,239.1.1.1)
//     wait 0.2
//     ----
//     0.000 machine 10.0.0.1 made on eth0, for the interface
//     0.000 machine 10.0.0.2 made on eth0, for the neighbor
//     0.000 timer 10.0.0.2 triggered armed for 0.100
//     0.100 timer 10.0.0.2 triggered fires
//     0.100 sent on eth0 from 10.0.0.1, upstream 10.0.0.2, triggered, hold 210, 34 bytes
//     0.100   join (10.9.0.1,239.1.1.1)
//
// The first line is a comment that tells the story. What a command does is in Simulation.h, which performs
// them; this header has what a file says, checked as a whole before any of it is performed.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "jpagent/common/Channel.h"
#include "jpagent/common/Options.h"
#include "pim/model/packet/JoinPruneMessage.h"
#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Jpagent {

using Vel::Seconds;

/// A file that cannot be read, or a line of it that is not understood or cannot be performed.
class ConversationError : public std::runtime_error {
 public:
  /// Line 0 stands for the whole file.
  ConversationError(U32 line, std::string const& text) : std::runtime_error(text), line_(line) {}
  U32 line() const { return line_; }

 private:
  U32 line_;
};

/// A join or prune of a route, in the form in which commands give it and the output shows it:
/// "join (10.9.0.1,239.1.1.1)", "prune (10.9.0.1,239.1.1.1,rpt)", "join (*,239.1.1.1) rp 10.0.0.9".
struct RouteEntry {
  bool join = true;
  Wire::SourceKind kind = Wire::SourceKind::source;
  IpGenAddr source;  ///< The RP of a (*,G) entry.
  IpGenAddr group;
};
std::string toText(RouteEntry const& entry);

/// So many routes from one on: each in the group above the one before, or from the source above.
struct RouteRange {
  RouteEntry first;
  U32 count = 1;
  bool sources = false;  ///< The sources are counted, not the groups.
};

/// The routes of a command, in order: a walk over `RouteEntry`s, of which only the ranges are kept.
class Routes {
 public:
  class Iterator {
   public:
    RouteEntry const& operator*() const { return entry_; }
    Iterator& operator++();
    bool operator!=(Iterator const& other) const {
      return range_ != other.range_ || passed_ != other.passed_;
    }

   private:
    friend class Routes;
    Iterator(RouteRange const* range, RouteRange const* end);

    RouteRange const* range_;
    RouteRange const* end_;
    U32 passed_ = 0;  // of the range
    RouteEntry entry_;
  };

  /// REQUIRES: at least one route, and addresses that do not run out.
  void add(RouteRange const& range);

  std::vector<RouteRange> const& ranges() const { return ranges_; }
  /// How many routes there are, which is more than the ranges.
  std::size_t size() const { return size_; }
  bool empty() const { return ranges_.empty(); }
  Iterator begin() const { return {ranges_.data(), ranges_.data() + ranges_.size()}; }
  Iterator end() const { return {ranges_.data() + ranges_.size(), ranges_.data() + ranges_.size()}; }

 private:
  std::vector<RouteRange> ranges_;
  std::size_t size_ = 0;
};

/// How many routes the ranges ("N routes from", "N sources from") of one line, and of all lines of a file,
/// may have together. Single routes are not counted: they take as much room in the file.
inline constexpr U32 mostRoutesOfLine = 1'000'000, mostRoutesOfFile = 2'000'000;

// --- Commands: one structure each, and what was left out is empty.

struct IntfCommand {
  std::string name;
  std::optional<IpGenPrefix> address;  // The default prefix for none.
  std::optional<U16> holdTime;
  std::optional<U32> interval;
  std::optional<Seconds> overrideInterval;
  std::optional<U32> mtu;
  bool notify = false;
  bool down = false;
  bool stay = false;   // As it is, up or down.
  bool renew = false;  // Another object takes its place.
  bool again = false;  // Told of without a change.
};
struct NeighborCommand {
  IpGenAddr address;
  std::string intf;  // Empty for a neighbor that is known.
  bool down = false;
  bool again = false;
};
struct RpCommand {
  std::string text;
};
/// Where groups are left out: on receipt (`deny`), or from what is sent, as filtered or as suppressed.
enum class Policy : U8 { deny, filter, suppress };
struct PolicyCommand {
  Policy policy;
  IpGenPrefix groups;
  bool off = false;
};
/// What becomes of a target's data. Apart from `add` and `remove` it is what breaks the rules for agents, or what only
/// the engine does otherwise.
enum class Change : U8 {
  add,
  remove,
  removeWildcard,  // of the group, whatever it says
  make,            // the data set itself
  gone,
  group,    // added empty
  ungroup,  // removed with all that is in it
  filled,   // groups that arrive with the entries in them
  again     // entries, or all groups, that are told of without a change
};
struct DataCommand {
  Channel channel;
  IpGenAddr target;
  Change change = Change::add;
  Routes entries;
  IpGenAddr group = {};
  bool all = false;  // Told of as a whole instead of one by one.
};
struct ReceiveCommand {
  std::string intf;
  Wire::JoinPrune message;
};
struct WaitCommand {
  Seconds time;
  bool until;
};
struct SeedCommand {
  long seed;
};
struct CostCommand {
  Seconds perMessage;
};
struct BusyCommand {
  Seconds time;
};
struct KeepCommand {
  std::optional<IpGenAddr> target;  // None to let go of all.
};
struct RecordCommand {
  bool on;
};
/// Another packet manager in place of the real one; see Simulation.h. Nothing in it for the real one. Among
/// its commands is no `wait`, and no other that puts such a manager in place.
struct TemperCommand {
  enum class Moment : U8 { none, first, middle, last };
  using Report = Packet::JoinPruneMessage::Report;

  bool on = false;
  U32 take = ~U32{0}, filtered = 0, suppressed = 0;
  bool tidy = false;
  std::optional<Report> report;  // What it says it did, if that is not the truth.
  Moment throws = Moment::none;
  Seconds cost = 0;
  Moment moment = Moment::none;  // When in the message `message`, counted from 1, `commands` are performed.
  U32 message = 0;
  std::vector<std::string> commands;
};
struct SetCommand {
  std::string subject, attribute, value;
};
struct StartCommand {};
struct DropCommand {};
struct ShowCommand {
  bool sets;
};
struct TraceCommand {
  std::vector<U32> levels;
};
struct PacketsCommand {
  bool brief;
};
struct SayCommand {
  std::string text;
};

using Command = std::variant<IntfCommand, NeighborCommand, RpCommand, PolicyCommand, DataCommand,
                             ReceiveCommand, WaitCommand, BusyCommand, SeedCommand, CostCommand, SetCommand,
                             StartCommand, DropCommand, KeepCommand, RecordCommand, TemperCommand,
                             ShowCommand, TraceCommand, PacketsCommand, SayCommand>;

/// Parses one command. Throws ConversationError, with the given line, that says what was expected.
Command commandFromText(std::string_view text, U32 line = 0);

/// The forms of all commands with a few words on each, for help texts.
std::string commandReference();

/// A file's content, checked as a whole and kept as the text that it is.
class Conversation {
 public:
  /// A line with a command. The text is the conversation's, or a copy's.
  struct Step {
    U32 line;
    std::string_view text;

    /// Made each time: a command may be much larger than its text.
    Command command() const { return commandFromText(text, line); }
  };

  /// Throws ConversationError.
  explicit Conversation(std::string_view text);
  static Conversation fromFile(std::string const& path);

  /// The first line, without the sign of a comment.
  std::string const& story() const { return story_; }
  std::vector<Step> const& steps() const { return steps_; }

  /// Whether there is a rule; without one, nothing is expected and nothing can be compared.
  bool hasRule() const { return firstExpectedLine_ != 0; }

  /// Empty if exactly this is expected. Otherwise where the first difference is, with the lines around it,
  /// "-" before what was expected and "+" before what came out. `name` is the file's.
  std::string difference(std::string_view name, std::string_view output) const;

  /// The file with another expected half. The other half stays as it is, byte for byte.
  std::string withExpected(std::string_view output) const;

 private:
  std::shared_ptr<std::string const> text_;  // at one place, for steps_ and for copies
  std::string story_;
  std::vector<Step> steps_;
  std::string_view head_;  // Up to and with the rule.
  std::string_view expected_;
  U32 firstExpectedLine_ = 0;
};

}  // namespace Routing::Pim::Jpagent
