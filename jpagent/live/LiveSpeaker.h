// SPDX-License-Identifier: Apache-2.0
// What `jpagent run` is without I/O: a speaker, the commands of people and programs, and events. Its inputs
// are the calls below and nothing else; the same inputs at the same times give the same packets, replies and
// events. So a recording of the inputs can be performed again.
//
//     seedProcess(settings);                          // before anything else that has a hash table
//     LiveSpeaker speaker(now, outside, settings);
//     speaker.interfaceGiven("eth0");
//     speaker.nowIs(now); speaker.kernelInterfaceIs("eth0", {.addresses = {...}, .isRunning = true});
//     speaker.nowIs(now); speaker.receive({...}, bytes);
//     speaker.nowIs(now); if (auto reply = speaker.command(line)) write(reply->event);
//     poll(..., speaker.timeMin() - now); speaker.nowIs(now); speaker.expire();
//     speaker.nowIs(now); speaker.quit(false); while (!speaker.isDone()) ...
//
//   LiveSpeaker.h     its inputs; what the kernel says of interfaces, sending, the quitting (LiveSpeaker.cpp)
//   LiveCommands.cpp  what commands do
//   LiveEvents.cpp    what the speaker tells, as events
//   LiveShow.cpp      what `show` shows; LiveCounters.cpp the counters
//   LiveWords.h       the table of commands
//   Event.h           one event as JSON or as text
//   Recording.h       the lines of a recording, and its performance
#pragma once

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "jpagent/common/Options.h"
#include "jpagent/live/Event.h"
#include "jpagent/simulate/speaker/SpeakerCommands.h"
#include "pim/speaker/Speaker.h"

namespace Routing::Pim::Jpagent::Live {

/// What the kernel says of an interface.
struct KernelInterface {
  /// Those that may be used: no IPv6 address during duplicate address detection or after it has failed.
  std::vector<IpGenPrefix> addresses;
  U32 mtu = 1500;          ///< In bytes.
  bool isRunning = false;  ///< Administratively up and with a carrier.
  bool pointToPoint = false;

  friend bool operator==(KernelInterface const& a, KernelInterface const& b) = default;
};

/// Whether the kernel could have an interface of that name, and commands name it.
bool canBeInterface(std::string_view name);

/// What became of a packet, when, and why.
struct SendResult {
  Speaker::Sent sent = Speaker::Sent::done;
  Seconds now = 0;     ///< The clock after it was sent. In between the clock of a LiveSpeaker does not move.
  std::string reason;  ///< With `failed`: the system's reason, one line.
};

/// The outside of a LiveSpeaker. Its functions must not call one of the LiveSpeaker's.
class LiveOutside {
 public:
  virtual ~LiveOutside() = default;
  /// Sends a packet. What it throws counts as `failed`.
  virtual SendResult send(Speaker::Outgoing const& packet) = 0;
  /// An event, once. It is valid during the call. Replies are no events: command() returns them.
  virtual void event(Event const& event) = 0;
};

/// What is known when a LiveSpeaker is made.
struct LiveSettings {
  U64 seed = 0;         ///< Of the speaker's random values.
  U64 hashSeed = 0;     ///< Of the process's hash tables; see seedProcess().
  long randomSeed = 0;  ///< Of drand48(), which the engine's override delay is from.
  std::int64_t microseconds =
      0;              ///< Since 1970, UTC, when the LiveSpeaker's clock reads what it begins with.
  bool json = false;  ///< How events are printed; a recording keeps it.
  /// Takes the lines of a recording, without their newlines, each before it has an effect; empty for none. It
  /// flushes each line, so that what is left of a killed process is whole up to its last input.
  std::function<void(std::string_view line)> record{};
};

/// Seeds what belongs to the process. REQUIRES: no hash table has an element yet.
void seedProcess(LiveSettings const& settings);

/// Who gives a command. Replies to standard input are part of what is printed, and so of what the performance
/// of a recording prints.
enum class Asker : U8 { standardInput, client, configuration };

/// The reply to a command.
struct Reply {
  bool ok = true;
  Event event;  ///< Members `time`, `event`, `ok`, `command`, then `error` or `result`.
  /// What is the asker's or the process's to do.
  std::optional<bool> events{};                 ///< After `events on|off`.
  std::optional<std::vector<U32>> traceLevels;  ///< After `trace LEVELS`, or empty after `trace off`.
};

class LiveSpeaker final : public SpeakerCommands, private Speaker::Sink, private Speaker::SpeakerObserver {
 public:
  /// The clock is monotonic, in seconds from any moment. The outside must outlive this.
  LiveSpeaker(Seconds now, LiveOutside& outside, LiveSettings settings);
  ~LiveSpeaker() override;

  // --- The clock. Each input is preceded by it.

  /// What time it is; less than before counts as no change.
  void nowIs(Seconds now) { now_ = std::max(now_, now); }
  /// What it was told last, by nowIs() or by the result of sending.
  Seconds now() const { return now_; }
  /// When expire() is due; +infinity if never.
  Seconds timeMin() const;
  void expire();

  // --- Interfaces. A name that cannot be an interface's throws std::range_error.

  /// `run` was given this name: commands may name it from now on, before the kernel has it.
  void interfaceGiven(std::string const& name);
  /// It no longer is: as if the kernel had removed it, and its settings are forgotten. Nothing if it was not.
  void interfaceTaken(std::string const& name);
  /// It appeared, or is another one than before. Nothing if it was not given.
  void kernelInterfaceIs(std::string const& name, KernelInterface const& kernel);
  /// It disappeared; another name is the end of the one interface and the beginning of another.
  void kernelInterfaceDel(std::string const& name);

  /// A packet, as Speaker::receive() takes it.
  Speaker::Verdict receive(Speaker::Incoming const& packet, std::span<U8 const> pimMessage);

  // --- Commands

  /// Performs one line, quit, help, events and trace included. Nothing for an empty line and a comment.
  std::optional<Reply> command(std::string_view line, Asker asker = Asker::standardInput);
  /// Refuses a line for a reason of the caller's, as that it is too long. `line` may be its beginning.
  Reply refuseCommand(std::string_view line, std::string_view error, Asker asker = Asker::standardInput);

  /// Prunes for all that is joined, at most 2 s, then goodbyes; `now`: goodbyes alone, also after a quit that
  /// is not through. Commands that change something are refused from here on.
  void quit(bool now);
  /// Whether it was called, or commanded.
  bool isQuitting() const { return quitBy_.has_value(); }
  /// After quit(): everything was sent that is to be sent.
  bool isDone() const { return hasEnded_ && goodbyes_.empty(); }
  /// How many groups wait to be sent for the first time; O(neighbors).
  std::size_t pending() const;

  /// How many routes were looked at as a whole so far, for who bounds what a stranger may cause.
  U64 routesLookedAt() const { return routesLookedAt_; }
  /// How many routes are wanted now, those that are wanted pruned included.
  std::size_t routesWanted() const { return speaker_->upstream().count() + pruned(); }

  // --- What the configuration and the outside have to say

  /// The RPs ("239.0.0.0/8=10.0.0.9") and the groups whose entries are neither taken nor sent, in place of
  /// those of before. Throws OptionError and changes nothing then. Routes that are joined keep their RP.
  void policyIs(std::vector<std::string> const& rps, std::vector<std::string> const& denied);
  /// A number for `show counters`, as the kernel's drops.
  void counterIs(std::string const& name, U64 value);
  /// An event `error`: an output or a socket failed.
  void error(std::string_view what, std::string_view reason);

 private:
  friend struct LiveForms;
  class Denied;
  struct Counter;

  // What the events have told of a family of an interface that is up.
  struct Told {
    IpGenPrefix address;
    U32 mtu;
  };
  struct Interface {
    std::optional<KernelInterface> kernel;
    SpeakerInterfaceSettings settings;
    bool isDown = false;                         // by command
    std::array<std::optional<Told>, 2> told;     // IPv4, IPv6
    std::array<std::optional<bool>, 2> goodbye;  // whether the latest was sent
  };
  // A Hello with hold time 0 that the outside wants later.
  struct Goodbye {
    std::string intf;
    IpGenAddr source, destination;
    std::vector<U8> bytes;
    Seconds until;
  };

  // Interfaces and sending.
  void apply(std::string const& name, Interface& interface);
  void applyToSpeaker(std::string const& name, Interface const& interface);
  void tellLinks(std::string const& name, Interface& interface);
  void tellLink(std::string const& name, Told const& told, bool isUp, std::optional<bool> goodbye);
  SendResult sendOut(Speaker::Outgoing const& packet);
  void sendGoodbyesAgain();
  void beginQuitting(bool now);
  void goOnQuitting();
  void end();

  // Sink
  Speaker::Sent send(Speaker::Outgoing const& packet) override;
  std::string_view failure() const override { return failure_; }

  // SpeakerObserver
  void neighborChanged(Speaker::NeighborEvent const& event) override;
  void downstreamChanged(Speaker::DownstreamEvent const& event) override;
  void downstreamLimited(Speaker::DownstreamLimitEvent const& event) override;
  void joinPruneReceived(Dova::IntfId const& intf, Speaker::ReceivedJoinPrune const& received) override;
  void joinPruneSent(Speaker::OutgoingPacket const& packet) override;
  void packetUndelivered(Speaker::UndeliveredPacket const& packet) override;
  void sendingFailed(Speaker::FailedPacket const& packet) override;

  // SpeakerCommands
  void interfaceIs(SpeakerInterfaceCommand const& command) override;
  void show(SpeakerSubject subject) override;
  Speaker::Speaker& speaker() override { return *speaker_; }
  std::vector<Place> places() const override;
  IpGenAddr rpOf(IpGenAddr const& group) const override { return rps_.rp(group, {}); }
  void requireInterface(std::string const& name) const override;

  // The other commands, and what `show` shows.
  void perform(std::string_view line);
  Reply reply(std::string_view line, std::string_view error);
  std::vector<Counter> counters() const;
  void showPrometheus();
  Json shown(SpeakerSubject subject) const;
  Json interfacesShown() const;
  Json neighborsShown() const;
  Json upstreamShown() const;
  Json downstreamShown() const;
  Json countersShown() const;
  Json familyShown(std::string const& name, Interface const& interface, Dova::AddressFamily family) const;

  // Events
  Event made(std::string_view kind, Json members) const;
  /// `leftOut` events like this one were not told before it.
  void tell(std::string_view kind, Json members, U64 leftOut = 0);
  std::string timeText() const;
  void record(std::string_view input) const;
  // At all that is wanted.
  void lookAtWishes() { routesLookedAt_ += speaker_->upstream().count(); }

  LiveOutside& outside_;
  LiveSettings const settings_;
  Seconds const begun_;
  Seconds now_;
  std::string failure_;  // of the latest packet

  RpTable rps_;
  Vel::Ptr<Denied> denied_;
  std::map<std::string, Interface, std::less<>> interfaces_;  // that were given
  std::map<std::string, U64> counters_;                       // of the outside
  std::vector<Goodbye> goodbyes_;
  Seconds goodbyesDue_ = Vel::never;
  std::optional<Seconds> quitBy_;
  bool hasEnded_ = false;
  U64 routesLookedAt_ = 0;
  Reply* reply_ = nullptr;  // of the command that is performed

  Vel::Ptr<Zanth::TimerWheel> const wheel_;
  std::unique_ptr<Speaker::Speaker> speaker_;
};

}  // namespace Routing::Pim::Jpagent::Live
