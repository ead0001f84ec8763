#include "runtime/vel/Machine.h"

namespace Vel {

void Machine::hasNotificationActiveIs(bool active) {
  Keep const keep(this);
  active_ = active;
  velVisitReactors([active](Reactor& reactor) { reactor.hasNotificationActiveIs(active); });
}

void Machine::velDoZombieReactors(bool zombie) {
  Keep const keep(this);
  velVisitReactors([zombie](Reactor& reactor) { reactor.velDoZombieReactors(zombie); });
}

}  // namespace Vel
