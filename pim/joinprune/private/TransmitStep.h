// SPDX-License-Identifier: Apache-2.0
// One message handed to the packet manager, as both sending machines do it. Not part of the library's
// interface.
#pragma once

#include "pim/model/io/PamManager.h"

namespace Routing::Pim {

/// Sends one data set through the packet manager, message by message. The transmit record and the message are
/// shared with other machines, and everything below calls out: what is called may point them at other data
/// or remove the record. So each message points them at this data again, and is not sent where that did not
/// last.
///
/// Any pointer may be null; then nothing is sent.
struct TransmitStep {
  /// What a message reported.
  using Report = Packet::JoinPruneMessage::Report;

  Vel::Ptr<IO::PamManager> manager;            ///< Has the transmit record, or has none.
  Vel::Ptr<Packet::JoinPruneMessage> message;  ///< Shared by all machines of an engine.
  Vel::Ptr<Packet::JoinPruneData> data;        ///< What is to be sent.
  Dova::IntfId intfId;                         ///< The interface towards the target.

  /// Points the record and the message at the data.
  void prepare() const {
    if (Vel::Ptr<IO::MessageInfo> const record = manager ? manager->txMessageInfo() : nullptr) {
      record->joinPruneMessageIs(message);
      record->intfIdIs(intfId);
    }
    if (message) message->joinPruneDataIs(data);
  }

  /// Asks for one message, unless `live()` is false after the preparations. The manager's report; all zero,
  /// which is a step without progress, if no message was asked for.
  template <class Live>
  Report send(Live const& live) const {
    prepare();
    if (message) message->reportIs({});
    Vel::Ptr<IO::MessageInfo> const record = manager ? manager->txMessageInfo() : nullptr;
    if (!record || !live() || !pointsHere(*record)) return {};
    record->countInc(1);
    return message ? message->report() : Report();
  }

 private:
  bool pointsHere(IO::MessageInfo const& record) const {
    return record.joinPruneMessage() == message && record.intfId() == intfId &&
           (!message || message->joinPruneData() == data);
  }
};

}  // namespace Routing::Pim
