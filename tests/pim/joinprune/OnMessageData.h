// SPDX-License-Identifier: Apache-2.0
// A way into the middle of an expiry.
#pragma once

#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {

/// Acts when a message is pointed at data.
class OnMessageData final : public Packet::JoinPruneMessage::NotifieeConst {
 public:
  OnMessageData(Vel::Ptr<Packet::JoinPruneMessage> const& message, std::function<void()> act)
      : act_(std::move(act)) {
    notifierIs(message);
  }
  void onJoinPruneData() override { act_(); }

 private:
  std::function<void()> const act_;
};

}  // namespace Routing::Pim
