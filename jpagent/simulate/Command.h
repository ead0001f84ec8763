// What the lines of a conversation say, one structure for each command; what was left out is empty.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "jpagent/common/Channel.h"
#include "jpagent/common/Options.h"
#include "jpagent/simulate/Routes.h"
#include "pim/model/packet/JoinPruneMessage.h"

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

struct InterfaceCommand {
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

using Command = std::variant<InterfaceCommand, NeighborCommand, RpCommand, PolicyCommand, DataCommand,
                             ReceiveCommand, WaitCommand, BusyCommand, SeedCommand, CostCommand, SetCommand,
                             StartCommand, DropCommand, KeepCommand, RecordCommand, TemperCommand,
                             ShowCommand, TraceCommand, PacketsCommand, SayCommand>;

/// Parses one command. Throws ConversationError, with the given line, that says what was expected.
Command commandFromText(std::string_view text, U32 line = 0);

/// The forms of all commands with a few words on each, for help texts.
std::string commandReference();

}  // namespace Routing::Pim::Jpagent
