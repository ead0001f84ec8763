// SPDX-License-Identifier: Apache-2.0
#include "pim/model/RpHashComputeStatus.h"

namespace Routing::Pim {

Dova::IpGenAddr RpHashComputeStatus::rpHashCompute(Dova::IpGenAddr const&, Dova::IpGenAddr const& rp) {
  return rp;
}

}  // namespace Routing::Pim
