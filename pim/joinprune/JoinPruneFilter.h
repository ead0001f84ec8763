// SPDX-License-Identifier: Apache-2.0
// The policy hook of receive processing.
#pragma once

#include "runtime/dova/IpGenAddr.h"
#include "runtime/vel/Entity.h"

namespace Routing::Pim {

/// Says which groups' (*,G) and (S,G,rpt) entries are left out on receipt. This one denies nothing; an agent
/// with a policy derives from it:
///
///   class NoLocalGroups final : public JoinPruneFilter {
///     bool deny(Dova::IpGenAddr const& group) const override { return local.contains(group); }
///     Dova::IpGenPrefix const local{Dova::IpGenAddr("239.255.0.0"), 16};
///   };
class VEL_API JoinPruneFilter : public Vel::Entity {
 public:
  class NotifieeConst : public Vel::ReactorOn<JoinPruneFilter> {};
  using Notifiee = Vel::WritableReactor<NotifieeConst, JoinPruneFilter>;

  /// Asked once for each group of a message, after the group's (S,G) entries have been recorded.
  virtual bool deny(Dova::IpGenAddr const& group) const;
};

/// Makes a filter that denies nothing, with a count of 1.
VEL_API Vel::Ptr<JoinPruneFilter> joinPruneFilterFactory();

}  // namespace Routing::Pim
