// SPDX-License-Identifier: Apache-2.0
#include "pim/model/io/MessageInfo.h"

namespace Routing::Pim::IO {

Vel::AttributeTable const& MessageInfo::attributeTable() const {
  using Self = MessageInfo;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(joinPruneMessage), VEL_ROW(intfId), VEL_ROW(count)};
  return table;
}

}  // namespace Routing::Pim::IO
