// What the machines of this folder do with their nested reactors. Not part of the library's interface.
#pragma once

#include "runtime/vel/Ptr.h"

namespace Routing::Pim {

/// A reactor of a machine on one of its constructor arguments; none for null.
template <class Reactor, class Notifier, class Machine>
Vel::Ptr<Reactor> reactorOn(Vel::Ptr<Notifier> const& notifier, Machine* sm) {
  return notifier ? Vel::create<Reactor>(notifier, sm) : nullptr;
}

/// What a reactor that may be absent watches.
template <class Reactor>
auto notifierOf(Vel::Ptr<Reactor> const& reactor) -> decltype(reactor->notifier()) {
  return reactor ? reactor->notifier() : nullptr;
}

/// Lets go of a reactor. Zombie first, then the back pointer: in between nothing is delivered.
template <class Reactor>
void unhook(Reactor& reactor) {
  try {
    reactor.velDoZombieReactors(true);
  } catch (...) {
    reactor.velOwnerDel();
    throw;
  }
  reactor.velOwnerDel();
}

}  // namespace Routing::Pim
