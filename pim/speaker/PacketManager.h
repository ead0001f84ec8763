// SPDX-License-Identifier: Apache-2.0
// The packet manager: from the machines' data sets to packets.
//
//     CapturedPackets packets;                       // or any other PacketSink
//     auto manager = Vel::create<PacketManager>(packets, pimStatus, filter);
//     manager->start();                              // makes the transmit record and serves it
//     auto machine = joinPruneMessageSmFactory(..., manager, wheel);
//
// Each time the transmit record's count is raised, one Join/Prune message (RFC 7761, 4.9.5) is made from the
// record's data set, for the data's upstream neighbor, within the interface's MTU, and handed to the sink.
//
// What is in a message:
//
//   - A (*,G) join has every (S,G,rpt) prune of its group beside it, in the same group set: those of its own
//     data set, and those of the other two data sets for the same upstream neighbor if dataSetsAre() names
//     them.
//     Alone it would end them at the receiver. Those of other sets stay there and are not in the report. If
//     there are more than a message of its own could hold, the numerically smallest are sent and the rest is
//     not (RFC 7761, 4.9.5.2); the rest counts as suppressed and in prunesLeftOut(), and a trace line says
//     how many.
//   - A group has one set in a message, and none if it would be empty. Other entries of a group may be spread
//     over messages.
//   - A prune waits while the same (S,G) or (S,G,rpt) is pending as a join: from data that is sent once it
//     is sent in a later message than the join, when the join is no longer pending. In periodic data the join
//     wins as long as it is stored, and the prune counts as suppressed: a receiver must not lose the route
//     once an interval.
//
// What becomes of data that is sent once (triggered and override): what was sent is taken out of it, source
// by source, once the sink has it. What the filter denies and what is suppressed is taken out with it:
// no data set wants it sent, now or at the next try. What cannot be encoded (an address of another family, a
// group that is none) stays, counts as nothing, and holds up nothing behind it.
//
// Periodic data stays as it is. Each message continues where the last one ended, by key; one that reaches the
// end of the data stops there, and the next begins again at the front. So a round has every route that was
// there all the time exactly once. What cannot be encoded counts as filtered, because routes that a message
// passes over must count as done.
//
// If there is no message to send (no such interface, no address on it, another family than the upstream
// neighbor's, an MTU without room for one entry), or the sink throws, the report is zero and nothing has
// changed: the machine tries again when its timer fires next. Every such case writes a line of level 2 to the
// trace handle "Pim::Agent".
#pragma once

#include <functional>
#include <map>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "pim/joinprune/JoinPruneFilter.h"
#include "pim/joinprune/JoinPruneStatus.h"
#include "pim/model/Status.h"
#include "pim/model/io/PamManager.h"
#include "pim/wire/Export.h"
#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Speaker {

using Dova::AddressFamily;
using Dova::IpGenAddr;

/// One Join/Prune message on its way out.
struct OutgoingPacket {
  Dova::IntfId intf;        ///< The interface that it leaves by.
  IpGenAddr source;         ///< The interface's address.
  IpGenAddr destination;    ///< ALL-PIM-ROUTERS of the family.
  Wire::JoinPrune message;  ///< What the bytes say.
  std::vector<U8> bytes;    ///< The PIM message, without the IP header.
  U64 prunesLeftOut = 0;    ///< (S,G,rpt) prunes that it has no room for beside their (*,G) join.
};

/// Where packets go. What it throws means that the packet was not sent.
class PIM_SPEAKER_API PacketSink {
 public:
  virtual ~PacketSink() = default;
  /// Sends the packet, or throws.
  virtual void send(OutgoingPacket const& packet) = 0;
};

/// Says whether an entry need not be sent because another router on the interface has just sent it
/// (RFC 7761, 4.5.4 and 4.5.5). The route of a (*,G) entry has a source of all zeros. Not asked about the
/// (S,G,rpt) prunes that go with a (*,G) join: without them the join would ask for those sources.
using Suppression = std::function<bool(Dova::IntfId const& intf, IpGenAddr const& upstreamNeighbor,
                                       RouteKey const& route, EntryKind kind)>;

/// Which periodic joins are left out because another router's join was heard (RFC 7761, 4.5.4 and 4.5.5).
/// Only periodic data is asked about. With a (*,G) join its (S,G,rpt) prunes are left out.
class PIM_SPEAKER_API HeardJoins {
 public:
  virtual ~HeardJoins() = default;
  /// Whether any join for an upstream neighbor may be left out now; false saves asking for each.
  virtual bool anyLeftOut(Dova::IntfId const& intf, IpGenAddr const& upstreamNeighbor) const = 0;
  /// Whether this one is. The source of a (*,G) is all zeros.
  virtual bool isLeftOut(Dova::IntfId const& intf, IpGenAddr const& upstreamNeighbor,
                         RouteKey const& route) const = 0;
};

/// The filter, the suppression hook, the sink and the data's reactors may do anything when they are
/// called: change the data, drop it, take down interfaces and machines, let go of this manager. A request for
/// another message from the data that is just being sent is not served; its report is zero.
class PIM_SPEAKER_API PacketManager final : public IO::PamManager {
 public:
  /// Of an interface whose MTU was not given: 1500 bytes.
  static constexpr U32 defaultMtu = 1500;

  /// How many entries and empty groups one message passes over before it ends, so that a long row of what is
  /// filtered or suppressed takes no longer than the machine allows for a step.
  static constexpr U32 maxPassedOver = 10'000;

  /// The sink must outlive the manager. Without a filter nothing is denied, without a hook nothing
  /// suppressed. A denied group has all its entries left out.
  explicit PacketManager(PacketSink& sink, Vel::Ptr<Status const> const& status,
                         Vel::Ptr<JoinPruneFilter const> const& filter = nullptr,
                         Suppression suppression = {});
  ~PacketManager() override;

  /// Makes the transmit record if it is missing, and serves it. To be called again if the record is replaced.
  void start();
  /// Serves no more, and forgets heardJoinsAre(). The record stays.
  void stop();

  /// The MTU of an interface: bytes of a whole IP packet, header included.
  U32 mtu(Dova::IntfId const& intf) const;
  /// Takes effect with the next message. What has no room for one entry lets nothing be sent.
  void mtuIs(Dova::IntfId const& intf, U32 bytes) { mtus_[intf] = bytes; }

  /// The engine's data sets, where the prunes are that belong beside a (*,G) join; null for its own set
  /// alone.
  void dataSetsAre(Vel::Ptr<JoinPruneStatus const> const& dataSets) { dataSets_ = dataSets; }
  /// Who says which periodic joins are left out; null for none. It must outlive the manager.
  void heardJoinsAre(HeardJoins const* heardJoins) { heardJoins_ = heardJoins; }

  /// How many (S,G,rpt) prunes were not sent because they had no room beside their (*,G) join.
  U64 prunesLeftOut() const { return prunesLeftOut_; }

  /// How many data sets there are whose last message this manager remembers; those that no longer exist are
  /// forgotten.
  std::size_t bookmarks() const { return bookmarks_.size(); }

 protected:
  void doTeardown() override;

 private:
  class Transmitter;
  class Bookmark;
  struct Envelope;

  void transmit(IO::MessageInfo& record);
  Packet::JoinPruneMessage::Report send(Dova::IntfId const& intf,
                                        Vel::Ptr<Packet::JoinPruneData> const& data);
  std::string_view findEnvelope(Dova::IntfId const& intf, IpGenAddr const& upstreamNeighbor,
                                Envelope& envelope) const;
  Vel::Ptr<Bookmark> bookmarkIs(Vel::Ptr<Packet::JoinPruneData> const& data);

  // Fixed at construction.
  PacketSink& sink_;
  Vel::Ptr<Status const> const status_;
  Vel::Ptr<JoinPruneFilter const> const filter_;
  Suppression const suppression_;

  Vel::Ptr<Transmitter> transmitter_;  // Null while nothing is served.
  std::map<Dova::IntfId, U32> mtus_;   // Those that are not the default.
  Vel::Ptr<JoinPruneStatus const> dataSets_;
  HeardJoins const* heardJoins_ = nullptr;
  U64 prunesLeftOut_ = 0;

  // By the data's address; a bookmark is removed with its data.
  std::unordered_map<Packet::JoinPruneData const*, Vel::Ptr<Bookmark>> bookmarks_;
};

}  // namespace Routing::Pim::Speaker
