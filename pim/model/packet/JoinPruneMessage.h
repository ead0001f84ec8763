// SPDX-License-Identifier: Apache-2.0
// A Join/Prune message.
#pragma once

#include "pim/model/packet/JoinPruneData.h"

namespace Routing::Pim::Packet {

/// A Join/Prune message in structured form: on the way in, what was decoded; on the way out, what to encode
/// from, and the report on what was sent.
class VEL_API JoinPruneMessage final : public Vel::Entity {
 public:
  /// What the packet manager did for the last message: how many sources it put in, and how many it left out
  /// because the join was suppressed or because of the filter.
  struct VEL_API Report {
    U32 sources = 0;            ///< In the message.
    U32 suppressedSources = 0;  ///< Left out because the join was suppressed (RFC 7761, 4.5.4, 4.5.5).
    U32 filteredSources = 0;    ///< Left out because of the filter.

    /// All sources that were left out.
    U64 skipped() const { return U64{suppressedSources} + filteredSources; }

    friend bool operator==(Report const& a, Report const& b) = default;
  };

  enum Attribute : Vel::AttributeId { joinPruneDataId = Vel::firstAttributeId, reportId };

  class NotifieeConst : public Vel::ReactorOn<JoinPruneMessage> {
   public:
    virtual void onJoinPruneData() { handleNotification(joinPruneDataId); }
    virtual void onReport() { handleNotification(reportId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, JoinPruneMessage>;

  /// The payload for one upstream neighbor; null until set.
  VEL_POINTER(JoinPruneData, joinPruneData, JoinPruneData);

  /// On the way out, written by the packet manager for the message that it has just sent.
  VEL_VALUE(Report, report, Report);

 public:
  Vel::AttributeTable const& attributeTable() const override;
};

/// "Sources: 1, Suppressed: 2, Filtered: 3".
VEL_API std::ostream& operator<<(std::ostream& os, JoinPruneMessage::Report const& report);

}  // namespace Routing::Pim::Packet
