// SPDX-License-Identifier: Apache-2.0
// What a replay tells: entries, refusals and totals, as lines for people or as JSON objects for machines.
#pragma once

#include <array>
#include <iosfwd>

#include "jpagent/capture/Datagram.h"
#include "pim/model/packet/SourceFlags.h"
#include "pim/wire/PimMessage.h"
#include "pim/wire/Refusal.h"
#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent {

using Vel::U64;

/// Where a message was found.
struct Place {
  U64 frame = 0;          ///< From 1.
  Vel::Seconds time = 0;  ///< Since the first frame.
};

/// One entry, as a reactor on the library's record saw it.
struct Entry {
  EntryKind kind = EntryKind::sourceJoin;
  IpGenAddr source;  ///< All zeros for (*,G).
  IpGenAddr group;
  IpGenAddr upstreamNeighbor;
  U16 holdTime = 0;
  Packet::SourceFlags flags;
  IpGenAddr rp;  ///< Of (*,G) alone.
};

struct Totals {
  U64 frames = 0;
  U64 messages = 0;   ///< Join/Prune messages, those refused included.
  U64 hellos = 0;     ///< Likewise.
  U64 lenient = 0;    ///< Messages of both types that a replay took because it is lenient.
  U64 strangers = 0;  ///< Messages of both types whose sender found no room among the neighbors.
  std::array<U64, entryKinds.size()> entries = {};          ///< Of each kind.
  std::array<U64, Wire::reasonNames.size()> refused = {};   ///< Messages of both types.
  std::array<U64, passedOverNames.size()> passedOver = {};  ///< Frames without a message of either type.

  U64 refusedMessages() const;
  U64 passedOverFrames() const;
};

class Report {
 public:
  virtual ~Report() = default;
  virtual void entry(Place const& place, Entry const& entry) = 0;
  /// Of a Join/Prune message or a Hello.
  virtual void refusal(Place const& place, Wire::PimType type, Wire::Refusal const& refusal) = 0;
  virtual void totals(Totals const& totals) = 0;
};

/// Aligned lines:
///
///     frame 3  10.848741  join  (*,G)  (0.0.0.0,239.1.1.1)  upstream 10.0.0.13  hold 210  flags SWR
///       rp 1.1.1.1 (all in one line)
///     frame 7  refused: bad checksum (0x5ae5, computed 0x5ae6)
///     frame 8  Hello refused: TTL or hop limit not 1 (64)
class TextReport final : public Report {
 public:
  explicit TextReport(std::ostream& out) : out_(out) {}
  void entry(Place const& place, Entry const& entry) override;
  void refusal(Place const& place, Wire::PimType type, Wire::Refusal const& refusal) override;
  void totals(Totals const& totals) override;

 private:
  std::ostream& out_;
  bool anyLine_ = false;  // Whether the totals need an empty line before them.
};

/// One object a line. Refusals are the fixed text of the reason. Of the totals, only what was passed over is
/// told, as one line of text beside the objects.
///
///     {"frame":3,"time":10.848741,"record":"join","kind":"(*,G)","source":"0.0.0.0","group":"239.1.1.1",
///      "upstream":"10.0.0.13","holdtime":210,"flags":7,"rp":"1.1.1.1"}
///     {"frame":7,"refused":"bad checksum"}
///     {"frame":8,"message":"Hello","refused":"TTL or hop limit not 1"}
class JsonReport final : public Report {
 public:
  JsonReport(std::ostream& out, std::ostream& beside) : out_(out), beside_(beside) {}
  void entry(Place const& place, Entry const& entry) override;
  void refusal(Place const& place, Wire::PimType type, Wire::Refusal const& refusal) override;
  void totals(Totals const& totals) override;

 private:
  std::ostream& out_;
  std::ostream& beside_;
};

}  // namespace Routing::Pim::Jpagent
