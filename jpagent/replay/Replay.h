// SPDX-License-Identifier: Apache-2.0
// The reference agent in its simplest form: it hears captured frames, hands the Join/Prune messages in them
// to a machine, and tells what the machine recorded.
//
//     TextReport report(std::cout);
//     Replay replay(options, report);
//     while (capture.next(frame)) replay.receiveFrame(frame);
//     report.totals(replay.totals());
//
// Design of the folder, from the bottom up:
//
//   Report.h       the report as text or JSON
//   Replay.h       frames to the engine, and what it records to the report
//   ReplayRun.h    `jpagent replay`: opens the capture and the outputs, and ends with a status
//
// Frames are read from files, and datagrams found in them, by jpagent/capture.
//
// The hash of a process that replays is seeded at random, because the senders choose the addresses in a
// capture. The engine walks its collections in the order of the hash, so the entries of a message are sorted
// before they are told.
//
// A message is decoded and checked as a whole before the machine sees any of it. What the machine does not
// record is not told: a (*,G) join whose RP is not the one that the RP hash gives, and the (*,G) and
// (S,G,rpt) entries of a denied group.
#pragma once

#include <map>
#include <set>
#include <utility>
#include <vector>

#include "jpagent/capture/Capture.h"
#include "jpagent/common/Options.h"
#include "jpagent/replay/Report.h"
#include "pim/joinprune/JoinPruneMessageSm.h"

namespace Routing::Pim::Jpagent {

/// What the command line of `jpagent replay` says.
struct ReplayOptions {
  RpTable rps;
  std::vector<IpGenPrefix> denied;
  std::vector<U32> traceLevels;
  std::string scrivoFile;  ///< Empty for none.
  bool lenient = false;    ///< Takes messages from senders, or to destinations, that the rules do not allow.
};

class Replay {
 public:
  /// So that memory has a bound, whatever a capture holds: 1 to 2 KB are taken for each.
  static constexpr std::size_t maxNeighbors = 20'000;

  /// The report must outlive the replay.
  Replay(ReplayOptions const& options, Report& report);
  ~Replay();
  Replay(Replay const&) = delete;
  Replay& operator=(Replay const&) = delete;

  /// Hears a frame. Everything in it has been reported on return. Its time is the clock by which senders are
  /// forgotten.
  void receiveFrame(Frame const& frame);

  Totals const& totals() const { return totals_; }

  /// The senders of Hellos and Join/Prune messages are neighbors in here, each until the hold time of its
  /// last message has passed; no more than `maxNeighbors` at a time.
  Vel::Ptr<Status const> pimStatus() const { return pimStatus_; }

 private:
  class EntryReactor;

  void receivePim(Place const& place, Datagram const& datagram);
  bool takeJoinPrune(Place const& place, Datagram const& datagram);
  void passOver(PassedOver why);
  bool takeHello(Place const& place, Datagram const& datagram);
  void neighborIs(IpGenAddr const& sender, Vel::Seconds now, U16 holdTime);
  void expireNeighbors(Vel::Seconds now);
  void deliver(Place const& place, Wire::JoinPrune const& message);
  void refuse(Place const& place, Wire::PimType type, Wire::Refusal const& refusal);

  Report& report_;
  bool const lenient_;
  Totals totals_;
  std::vector<Entry> entries_;  // What the reactors saw of the message that is being delivered.

  // When each neighbor is forgotten, and the same by time. Ordered by address, so that a trace of neighbors
  // that expire together does not depend on the hash.
  std::map<IpGenAddr, Vel::Seconds> neighborEnds_;
  std::set<std::pair<Vel::Seconds, IpGenAddr>> neighborsByEnd_;

  // Fixed at construction.
  Vel::Ptr<Status> pimStatus_;
  Vel::Ptr<Intf> intf_;
  Vel::Ptr<IO::MessageInfo> rxMessageInfo_;
  Vel::Ptr<EntryReactor> joinReactor_, pruneReactor_;
  Vel::Ptr<JoinPruneMessageSm> machine_;
};

}  // namespace Routing::Pim::Jpagent
