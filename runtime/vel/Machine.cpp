// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Machine.h"

namespace Vel {

void Machine::hasNotificationActiveIs(bool active) {
  MemoryHold const memory(this);
  active_ = active;
  velVisitReactors([active](Reactor& reactor) { reactor.hasNotificationActiveIs(active); });
}

void Machine::velDoZombieReactors(bool zombie) {
  MemoryHold const memory(this);
  velVisitReactors([zombie](Reactor& reactor) { reactor.velDoZombieReactors(zombie); });
}

}  // namespace Vel
