// SPDX-License-Identifier: Apache-2.0
#include "pim/model/io/PamManager.h"

namespace Routing::Pim::IO {

Vel::Ptr<MessageInfo> PamManager::txMessageInfoIs() {
  if (txMessageInfo_) return txMessageInfo_;
  auto const made = Vel::create<MessageInfo>();
  txMessageInfoIs(made);
  return made;
}

Vel::AttributeTable const& PamManager::attributeTable() const {
  using Self = PamManager;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(txMessageInfo)};
  return table;
}

}  // namespace Routing::Pim::IO
