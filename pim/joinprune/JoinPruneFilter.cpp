// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPruneFilter.h"

namespace Routing::Pim {

bool JoinPruneFilter::deny(Dova::IpGenAddr const&) const { return false; }

Vel::Ptr<JoinPruneFilter> joinPruneFilterFactory() { return Vel::valid(Vel::create<JoinPruneFilter>()); }

}  // namespace Routing::Pim
