// SPDX-License-Identifier: Apache-2.0
// The packet manager.
#pragma once

#include "pim/model/io/MessageInfo.h"

namespace Routing::Pim::IO {

/// The transmit side of the agent's packet layer. The agent watches the transmit record: each time its count
/// is raised, it encodes and sends one Join/Prune message from the record's data, takes what it sent out of
/// data that is not periodic, source by source, and fills the message's report, all before `countInc`
/// returns.
class VEL_API PamManager : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId { txMessageInfoId = Vel::firstAttributeId };

  class NotifieeConst : public Vel::ReactorOn<PamManager> {
   public:
    virtual void onTxMessageInfo() { handleNotification(txMessageInfoId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, PamManager>;

  /// The transmit record, or null.
  VEL_POINTER(MessageInfo, txMessageInfo, TxMessageInfo);

 public:
  /// Returns the transmit record, made if it is missing.
  Vel::Ptr<MessageInfo> txMessageInfoIs();
  Vel::Ptr<MessageInfo> txMessageInfoIs() const { Vel::throwConstInstance(); }
  /// Removes the transmit record. Nothing is sent without one.
  void txMessageInfoDel() { txMessageInfoIs(nullptr); }
  void txMessageInfoDel() const { Vel::throwConstInstance(); }

  Vel::AttributeTable const& attributeTable() const override;
};

}  // namespace Routing::Pim::IO
