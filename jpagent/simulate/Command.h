// SPDX-License-Identifier: Apache-2.0
// What the lines of a conversation say, one structure for each command; what was left out is empty.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "jpagent/common/Options.h"
#include "jpagent/common/SendKind.h"
#include "jpagent/simulate/Routes.h"
#include "pim/model/packet/JoinPruneMessage.h"

namespace Routing::Pim::Jpagent {

using Vel::Seconds;

/// A file that cannot be read, or a line of it that is not understood or cannot be performed.
class ConversationError : public std::runtime_error {
 public:
  /// Line 0 means the whole file.
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
  bool renew = false;  // Another object takes its place.
};
struct NeighborCommand {
  IpGenAddr address;
  std::string intf;  // Empty for a neighbor that is known.
  bool down = false;
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
/// What becomes of a target's data. Apart from `add` and `remove` it is what breaks the rules for agents, or
/// what only the engine does otherwise.
enum class Change : U8 {
  add,
  remove,
  removeWildcard,  // of the group, whatever it says
  make,            // the data set itself
  gone,
  group,   // added empty
  ungroup  // removed with all that is in it
};
struct DataCommand {
  SendKind sendKind;
  IpGenAddr target;
  Change change = Change::add;
  Routes entries;
  IpGenAddr group = {};
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

class Simulation;

/// What a program that extends the table of commands has beside those above.
class ExtraCommand {
 public:
  virtual ~ExtraCommand() = default;
  /// Performs it. What cannot be done throws std::range_error with the reason.
  virtual void perform(Simulation& simulation) const = 0;
};
using OwnCommand = std::shared_ptr<ExtraCommand const>;

/// What the commands after this one speak to.
struct SpeakerStartCommand {
  U32 seed = 0;
};
class SpeakerCommands;
/// A command to a speaker. What cannot be done throws std::range_error with the reason.
struct SpeakerCommand {
  std::function<void(SpeakerCommands&)> perform;
};

using Command = std::variant<InterfaceCommand, NeighborCommand, RpCommand, PolicyCommand, DataCommand,
                             ReceiveCommand, WaitCommand, BusyCommand, SeedCommand, CostCommand, SetCommand,
                             StartCommand, DropCommand, KeepCommand, RecordCommand, ShowCommand, TraceCommand,
                             PacketsCommand, SayCommand, OwnCommand, SpeakerStartCommand, SpeakerCommand>;

struct Form;
/// Rows of a table of commands that come before jpagent's own. They must outlive what was parsed with them.
using OwnForms = std::span<Form const>;

/// What a command speaks to: which tables it is looked up in. `own` is the caller's table alone.
enum class Subject : U8 { engine, speaker, own };

/// Parses one command. Throws ConversationError, with the given line, that says what was expected.
Command commandFromText(std::string_view text, U32 line = 0, OwnForms own = {},
                        Subject subject = Subject::engine);

/// The forms of all commands with a few words on each, for help texts.
std::string commandReference();
/// The same of the commands to a speaker.
std::string speakerCommandReference();

}  // namespace Routing::Pim::Jpagent
