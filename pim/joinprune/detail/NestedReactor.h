// SPDX-License-Identifier: Apache-2.0
// What the machines of this folder do with their nested reactors. Not part of the library's interface.
#pragma once

#include "runtime/vel/Ptr.h"

namespace Routing::Pim {

/// A nested reactor: one with a plain pointer back to its owner, null once the owner has let go.
template <class Base, class Owner>
class NestedReactor : public Base {
 public:
  /// The owner, or null once it has let go; not counted.
  Owner* velOwner() const { return owner_; }
  /// Sets the back pointer.
  void velOwnerIs(Owner* owner) { owner_ = owner; }
  void velOwnerIs(Owner*) const { Vel::throwConstInstance(); }
  /// Clears the back pointer.
  void velOwnerDel() { owner_ = nullptr; }
  void velOwnerDel() const { Vel::throwConstInstance(); }

 protected:
  /// Of an owner, which is not counted.
  explicit NestedReactor(Owner* owner) : owner_(owner) {}

 private:
  Owner* owner_;
};

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
