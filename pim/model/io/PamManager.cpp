#include "pim/model/io/PamManager.h"

namespace Routing::Pim::IO {

Vel::Ptr<MessageInfo> PamManager::txMessageInfoIs() {
  if (!txMessageInfo_) txMessageInfoIs(Vel::create<MessageInfo>());
  return txMessageInfo();
}

Vel::AttributeTable const& PamManager::attributeTable() const {
  using Self = PamManager;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(txMessageInfo)};
  return table;
}

}  // namespace Routing::Pim::IO
