// SPDX-License-Identifier: Apache-2.0
// The RP hash.
#pragma once

#include "pim/model/RouteKey.h"
#include "runtime/vel/Entity.h"

namespace Routing::Pim {

/// Tells which RP serves a group (RFC 7761, 4.7). The agent derives from it.
class VEL_API RpHashComputeStatus : public Vel::Entity {
 public:
  class NotifieeConst : public Vel::ReactorOn<RpHashComputeStatus> {};
  using Notifiee = Vel::WritableReactor<NotifieeConst, RpHashComputeStatus>;

  /// The RP that the local hash selects for `group`; `rp` is the one that a received message names. The
  /// answer must be an address: one of unknown family stops the process. This base has no RP set to choose
  /// from and agrees with the message.
  virtual Dova::IpGenAddr rpHashCompute(Dova::IpGenAddr const& group, Dova::IpGenAddr const& rp);
};

}  // namespace Routing::Pim
