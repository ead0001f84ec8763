// SPDX-License-Identifier: Apache-2.0
// The engine in a world in which nothing happens until a command says so: interfaces, neighbors, a packet
// manager, and a clock that begins at 0. Commands go in; everything that comes out becomes a line of text:
//
//     0.000 machine 10.0.0.2 made on eth0, for the neighbor    a neighbor machine comes; or "gone"
//     0.000 timer 10.0.0.2 triggered armed for 0.100           the engine has armed a timer
//     0.100 timer 10.0.0.2 triggered fires                     if it is late: "fires, due 0.100"
//     0.100 sent on eth0 from 10.0.0.1, upstream 10.0.0.2, triggered, hold 210, 34 bytes
//     0.100   join (10.9.0.1,239.1.1.1)                        what the packet's bytes say
//     1.000 rxJoin 1: (10.9.0.1,239.1.1.1), Flags: S, Intf: , Neighbor: 10.0.0.1, Holdtime: 210
//     1.000 trace 7 JoinPruneNeighborSm(eth0::10.0.0.2)::@1::...    @1 is the name of the object's address
//
// The same commands give the same lines on every computer: the clock is the world's own, the random delay is
// seeded, and objects are numbered in the order in which traces name them.
//
// Which file of this folder does what:
//
//   SimulateRun.h              `jpagent simulate`: performs and compares conversation files
//   Conversation.h             the lines of a conversation: commands, and what is to come out
//   CommandTable.h             the words of commands, with their texts for help
//   Words.h                    the words of one line, taken one by one
//   RouteWords.h               routes in the words of a command
//   Command.h                  commands as values
//   Simulation.h               performs commands on an engine (Data.cpp, Interfaces.cpp, Show.cpp and others:
//                              what each kind does)
//   Inside.h                   what the source files of Simulation share
//   Routes.h                   routes as commands give them and the output shows them
//   RouteData.h                single routes in the data of the model
//   speaker/SpeakerWorld.h     performs commands on a speaker instead
//   speaker/SpeakerCommands.h  what commands to a speaker do, in a conversation or in `jpagent run`
//   speaker/SpeakerForms.h     their words, for the tables of both
//   speaker/SpeakerWords.h     the table for conversations
#pragma once

#include <array>
#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "jpagent/simulate/Conversation.h"
#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/speaker/PacketSinks.h"
#include "runtime/vel/Trace.h"

namespace Routing::Pim::Jpagent {

class SpeakerWorld;
enum class TimerEvent : U8;

/// A program with commands of its own derives from it.
///
/// A command costs what it changes and what comes out, however many machines there are. What is looked at as
/// a whole without a line for it (data sets at a start) is bounded for all commands together.
///
/// REQUIRES: one simulation at a time in a process, since traces and the random generator are the process's.
class Simulation {
 public:
  /// How many interfaces, data sets, groups and routes may be looked at as a whole.
  static constexpr std::size_t mostLookedAt = 20'000'000;
  /// As how many of them an expiry of the timers counts: a conversation may wait through a million expiries.
  static constexpr std::size_t oneExpiry = 20;

  /// Lines go to `out`; each packet is also given to `alsoTo`, if there is one, after its line. Both must
  /// outlive the simulation.
  explicit Simulation(std::ostream& out, Speaker::PacketSink* alsoTo = nullptr,
                      std::size_t mayLookAt = mostLookedAt);
  virtual ~Simulation();
  Simulation(Simulation const&) = delete;
  Simulation& operator=(Simulation const&) = delete;

  /// Performs a command to its end. What cannot be done throws std::range_error with the reason.
  void perform(Command const& command);

  /// The virtual time, in seconds.
  Seconds now() const { return now_; }

  /// Whether the output has told of each timer as it is, which holds between commands. For tests: it looks
  /// at all machines.
  bool everyTimerIsTold() const;
  /// At how many machines the commands so far have looked, to tell of their timers. For tests.
  std::size_t machinesLookedAt() const { return machinesLookedAt_; }

 protected:
  friend class SpeakerWorld;

  class MachineWatch;
  class ExpiryWatch;
  class RecordWatch;
  class Rps;
  class Groups;

  // What is known of a neighbor machine; lines on its timers come from comparing it with what is. Its
  // timers are in armed_ too.
  struct Target {
    void const* machine;
    void const* periodicTimerSm;
    std::string intf;
    std::array<Seconds, sendKindNames.size()> timers;
  };

  void on(InterfaceCommand const& command);
  void on(NeighborCommand const& command);
  void on(RpCommand const& command);
  void on(PolicyCommand const& command);
  void on(DataCommand const& command);
  void on(ReceiveCommand const& command);
  void on(WaitCommand const& command);
  void on(BusyCommand const& command);
  void on(SeedCommand const& command);
  void on(CostCommand const& command);
  void on(SetCommand const& command);
  void on(StartCommand const& command);
  void on(DropCommand const& command);
  void on(KeepCommand const& command);
  void on(RecordCommand const& command);
  void on(SpeakerStartCommand const& command);
  void on(SpeakerCommand const& command);
  void on(OwnCommand const& command) { command->perform(*this); }
  void on(ShowCommand const& command);
  void on(TraceCommand const& command);
  void on(PacketsCommand const& command);
  void on(SayCommand const& command);

  void send(Speaker::OutgoingPacket const& packet);
  void traced(Vel::TraceLine const& line);
  /// A command that was given, and not one inside another, is about to be performed.
  virtual void beginCommand() {}
  /// Starts what serves the transmit record; there may be none.
  virtual void serveRecord();
  void changeInterface(InterfaceCommand const& command);
  Vel::Ptr<Packet::JoinPruneData> changingData(DataCommand const& command);
  void makeData(SendKind sendKind, IpGenAddr const& target);
  void removeData(SendKind sendKind, IpGenAddr const& target);
  void retireGroup(Packet::JoinPruneData& data, IpGenAddr const& target,
                   Packet::JoinPruneGroupData const& group);
  void removeEntries(Packet::JoinPruneData& data, DataCommand const& command);
  void removeWildcard(Packet::JoinPruneData& data, DataCommand const& command);
  void change(Packet::JoinPruneData& data, DataCommand const& command);
  static void refuseUnlessAllAreThere(Packet::JoinPruneData const& data, DataCommand const& command);
  std::string_view sendKindOf(Packet::JoinPruneData const& data) const;
  void machineChanged(IpGenAddr const& address);
  void recorded(JoinPruneMessageInfo const& record, bool join);

  void nowIs(Seconds now);
  void ringGone(IpGenAddr const& target) const;
  void ringTimer(TimerEvent event, IpGenAddr const& target, SendKind sendKind, Seconds due) const;
  void ringSent(Speaker::OutgoingPacket const& packet, std::vector<RouteEntry> const& entries) const;
  void line(std::string_view text);
  void tellEntries(Wire::JoinPrune const& message);
  void expire();
  void timerFires(Zanth::TimerWheel::Notifiee const& timer);
  void tellFiring(IpGenAddr const& address, SendKind sendKind);
  void tellTimers();
  Seconds timerIs(IpGenAddr const& address, Target& target, SendKind sendKind, Seconds time);
  void forget(IpGenAddr const& address, Target const& target);
  void refuseIfLookedAtTooMuch() const;
  void showTarget(IpGenAddr const& address);
  void showEntries(IpGenAddr const& address);
  void forgetNames();
  std::string named(std::string_view text, std::string_view function);
  std::string const& nameOf(std::string const& pointer);

  std::map<IpGenAddr, Vel::Ptr<JoinPruneNeighborSm>> machines() const;
  std::array<Vel::Ptr<Packet::JoinPruneData>, sendKindNames.size()> dataOf(IpGenAddr const& target) const;
  Vel::Ptr<Intf> knownIntf(std::string const& name) const;

  std::ostream& out_;
  Speaker::PacketSink* const alsoTo_;
  Speaker::ForwardedPackets packets_{[this](Speaker::OutgoingPacket const& packet) { send(packet); }};

  // The clock.
  Seconds now_ = 0;
  Seconds cost_ = 0;

  // The engine's inputs, the same ones for each machine that is started.
  Vel::Ptr<Zanth::TimerWheel> const wheel_;
  Vel::Ptr<Status> const pimStatus_;
  Vel::Ptr<JoinPruneStatus> const status_;
  Vel::Ptr<Groups> const denied_, filtered_, suppressed_;
  Vel::Ptr<Rps> const rps_;
  Vel::Ptr<JoinPruneMessageInfo> const rxJoin_, rxPrune_;
  Vel::Ptr<IO::MessageInfo> const channel_;
  Vel::Ptr<Speaker::PacketManager> manager_;
  std::map<std::string, Vel::Ptr<Intf>> intfs_;    // those that are down included
  std::map<IpGenAddr, Vel::Ptr<Intf>> neighbors_;  // where each was last
  Vel::Ptr<JoinPruneMessageSm> machine_;           // null unless started
  std::vector<Vel::Ptr<JoinPruneNeighborSm>> kept_;
  std::unique_ptr<SpeakerWorld> speaker_;  // null in a conversation with the engine

  // What tells of the outputs.
  Vel::Ptr<MachineWatch> const machineWatch_;
  Vel::Ptr<ExpiryWatch> const expiryWatch_;
  Vel::Ptr<RecordWatch> const joinWatch_, pruneWatch_;
  bool brief_ = false;
  std::map<std::pair<IpGenAddr, SendKind>, Seconds>
      due_;  // while timers fire: those of which no line told yet
  std::map<IpGenAddr, Target> targets_;
  std::set<IpGenAddr> touched_;  // targets whose timers may not be as was last told
  std::set<std::tuple<Seconds, IpGenAddr, SendKind>> armed_;  // of targets_, by time
  std::map<std::string, IpGenAddr, std::less<>> machineAt_;   // of targets_, by the text of their address
  std::map<std::string, std::string> names_;                  // of objects, by the text of their address
  std::vector<std::string> passing_;                          // those in names_ that may be of no machine
  U32 lastName_ = 0;
  std::size_t machinesLookedAt_ = 0;
  std::size_t const mayLookAt_;
  std::size_t lookedAt_ = 0;  // as a whole, and without a line of its own
};

/// Performs a conversation. What cannot be done throws ConversationError with its line.
void simulate(Conversation const& conversation, Simulation& simulation);

}  // namespace Routing::Pim::Jpagent
