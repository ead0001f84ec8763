// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Reactor.h"

#include "runtime/vel/Entity.h"
#include "runtime/vel/Trace.h"

namespace Vel {

namespace {

// What is being handled right now, in words.
std::string currentError() {
  try {
    throw;
  } catch (std::exception const& error) {
    return error.what();
  } catch (...) {
    return "not a std::exception";
  }
}

}  // namespace

Reactor::~Reactor() { velNotifierIs(nullptr); }

// Before the derived parts go: a callback must not find a half-destroyed reactor.
void Reactor::doDetach() noexcept { velNotifierIs(nullptr); }

void Reactor::hasNotificationActiveIs(bool active) {
  flagsAndHolds_ = active ? flagsAndHolds_ & ~inactive : flagsAndHolds_ | inactive;
}

U32 Reactor::auditErrors() const {
  if (!next_) return 0;
  U32 errors = 0;
  if (!notifier_) ++errors;
  if (next_->previous_ != this || previous_->next_ != this) ++errors;
  return errors;
}

void Reactor::isNondestructingIs(bool on) {
  if (on == isNondestructing()) return;
  flagsAndHolds_ ^= nondestructing;
  if (!notifier_) return;
  if (!isRegisteredNotifiee()) {
    // A reactor that does not keep its notifier must be found when that is destroyed, registered or not.
    if (on) {
      link();
      flagsAndHolds_ |= unregistered;
    } else {
      unlink();
    }
  }
  if (on)
    notifier_->deleteRef();
  else
    notifier_->newRef();
}

void Reactor::isRegisteredNotifieeIs(bool registered) {
  if (registered == isRegisteredNotifiee() || !notifier_) return;
  unlink();
  if (registered || isNondestructing()) link();
  if (!registered && isNondestructing()) flagsAndHolds_ |= unregistered;
}

// At the end of the notifier's list.
void Reactor::link() {
  ++notifier_->reactors_;
  Reactor*& first = notifier_->notifiees_;
  if (!first) {
    previous_ = next_ = first = this;
    return;
  }
  next_ = first;
  previous_ = first->previous_;
  previous_->next_ = next_->previous_ = this;
}

void Reactor::velBecomeFirst() { notifier_->notifiees_ = this; }

void Reactor::unlink() {
  if (!next_) return;
  notifier_->velDisturb();
  flagsAndHolds_ &= ~unregistered;
  --notifier_->reactors_;
  Reactor*& first = notifier_->notifiees_;
  if (next_ == this) {
    first = nullptr;
  } else {
    previous_->next_ = next_;
    next_->previous_ = previous_;
    if (first == this) first = next_;
  }
  previous_ = next_ = nullptr;
}

// A delivery that is calling this reactor, or has still to call it, takes it into its snapshot.
bool Reactor::velInUse() {
  if (next_) notifier_->velDisturb();
  return references() != 0;
}

void Reactor::velNotifierIs(Entity* notifier) {
  if (notifier == notifier_) return;
  // Raised before the old one is dropped, which may end it and call out.
  if (notifier && !isNondestructing()) notifier->newRef();
  unlink();
  Entity* const old = std::exchange(notifier_, notifier);
  if (notifier_) link();
  if (old && !isNondestructing()) old->deleteRef();
}

std::string Reactor::name() const { return fwkType(); }

void Reactor::handleNotification(AttributeId id) { onAttribute(id); }
void Reactor::handleDefault(std::string_view collection) { onCollectionNotification(collection); }
void Reactor::onAttribute(AttributeId) { onNotification(); }
void Reactor::onNotification() {}
void Reactor::onCollectionNotification(std::string_view) { onNotification(); }

void Reactor::onNotificationException() {
  VEL_TRACE(frameTrace(), TraceLevel::error, "Vel", __func__, name() << ": " << currentError());
}

void Reactor::onNotificationException(AttributeId id) {
  VEL_TRACE(frameTrace(), TraceLevel::error, "Vel", __func__,
            name() << ", attribute " << id << ": " << currentError());
}

void Reactor::handleNotificationException(AttributeId id) noexcept {
  try {
    onNotificationException(id);
  } catch (...) {
  }
}

void Reactor::handleNotificationException() noexcept {
  try {
    onNotificationException();
  } catch (...) {
  }
}

void Reactor::onZeroReferences() {}

void Reactor::velDoZombieReactors(bool zombie) {
  if (zombie == isZombie()) return;
  if (notifier_ || (flagsAndHolds_ & follows) != 0) hasNotificationActiveIs(!zombie);
  zombieIs(zombie);
  flagsAndHolds_ = zombie ? flagsAndHolds_ | retired : flagsAndHolds_ & ~retired;
}

}  // namespace Vel
