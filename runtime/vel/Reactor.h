// SPDX-License-Identifier: Apache-2.0
// Reactors: objects that are told when an entity changes.
//
// Every entity type T has a reactor base T::NotifieeConst with one callback per attribute (see Attribute.h),
// and T::Notifiee, the same with a writable notifier. Derive, override what you need, create on the heap,
// point it at an entity:
//
//   class Counter : public JoinPruneMessageInfo::NotifieeConst {
//     void onRxCount() override { ++entries; }
//    public:
//     int entries = 0;
//   };
//   auto counter = Vel::create<Counter>();
//   counter->notifierIs(record);          // from here on; keeps the record alive
//
// Callbacks run inside the mutator that caused them, in the order of registration, over a snapshot of the
// reactors: one that is removed meanwhile is still called in that pass (unless it was switched off, retired
// or pointed elsewhere), one that is added is not. A callback may do anything: change the entity, remove
// reactors, drop the last reference to anything. What it throws is contained and handed to its own
// `onNotificationException`; the others are still called.
#pragma once

#include <concepts>
#include <string_view>
#include <type_traits>

#include "runtime/vel/Export.h"
#include "runtime/vel/Ptr.h"

namespace Vel {

class Entity;
class FollowedEntity;

/// What all reactors have in common. Names with `on` are for overriding, names with `handle` are the
/// framework's side of them.
class VEL_API Reactor : public Counted {
 public:
  /// Switches callbacks on (the default) or off. What was missed is not made up for.
  virtual void hasNotificationActiveIs(bool active);
  void hasNotificationActiveIs(bool) const { throwConstInstance(); }
  /// Whether callbacks are on.
  bool hasNotificationActive() const { return (flagsAndHolds_ & inactive) == 0; }

  /// How many inconsistencies there are between this reactor and its notifier; 0 in a healthy process.
  virtual U32 auditErrors() const;

  /// A nondestructing reactor does not keep its notifier alive: it gets `onZeroReferences()` when the
  /// notifier is destroyed, and its notifier reads null afterwards. Off by default.
  virtual void isNondestructingIs(bool nondestructing);
  void isNondestructingIs(bool) const { throwConstInstance(); }
  /// Whether this reactor leaves its notifier's life to others.
  bool isNondestructing() const { return (flagsAndHolds_ & nondestructing) != 0; }

  ~Reactor() override;

  /// Puts this reactor into its notifier's list (at the end) or takes it out, without changing the notifier.
  virtual void isRegisteredNotifieeIs(bool registered);
  void isRegisteredNotifieeIs(bool) const { throwConstInstance(); }
  /// Whether the notifier has this reactor in its list.
  bool isRegisteredNotifiee() const { return next_ && (flagsAndHolds_ & unregistered) == 0; }

  /// A name for traces; the type's unless overridden.
  virtual std::string name() const;

  /// A plain attribute changed whose own callback is not overridden: calls `onAttribute(id)`.
  virtual void handleNotification(AttributeId id);
  /// A collection changed whose own callback is not overridden: calls `onCollectionNotification(name)`.
  virtual void handleDefault(std::string_view collection);
  /// Any attribute without a callback of its own; by default `onNotification()`.
  virtual void onAttribute(AttributeId id);
  /// Whatever has no other callback.
  virtual void onNotification();
  /// Any collection without a callback of its own; by default `onNotification()`.
  virtual void onCollectionNotification(std::string_view name);

  /// A callback that belongs to no attribute (a timer's) threw. Call from a handler: the exception is
  /// current. By default writes a level-1 trace with this reactor's type and the error.
  virtual void onNotificationException();
  /// The callback of an attribute threw. By default writes a level-1 trace with this reactor's type, the
  /// attribute's number and the error.
  virtual void onNotificationException(AttributeId id);
  /// Calls `onNotificationException(id)`; what that throws is swallowed.
  virtual void handleNotificationException(AttributeId id) noexcept;
  /// Calls `onNotificationException()`; what that throws is swallowed.
  virtual void handleNotificationException() noexcept;

  /// The notifier has no references left. It can be read, and revived by keeping a Ptr to it.
  virtual void onZeroReferences();

  /// Retires the reactor (true: callbacks stop) or revives it. Nothing happens if it is in that state
  /// already. Does not touch back pointers.
  virtual void velDoZombieReactors(bool zombie);
  void velDoZombieReactors(bool) const { throwConstInstance(); }
  /// True while retired.
  bool isZombie() const { return zombie(); }

 protected:
  /// `isOnOpenType`: it watches entities of a type that others derive from, see `velIsOpen()` of ReactorOn.
  explicit Reactor(bool isOnOpenType = true) { flagsAndHolds_ = isOnOpenType ? onOpenType : 0; }
  void doDetach() noexcept override;

  /// The entity watched, or null; not counted.
  Entity* velNotifier() const { return notifier_; }
  /// Points the reactor at another entity or at none, and registers it there. The same one again is nothing.
  void velNotifierIs(Entity* notifier);

  /// Moves this reactor to the front of its notifier's list; a pass that has begun calls it no more than
  /// before. REQUIRES: it is registered, and was registered last.
  void velBecomeFirst();

  /// Ends that this follows anything: each entity that it followed may have another follower from here on.
  void velFollowNoMore() { flagsAndHolds_ &= ~follows; }

  /// A flag for the derived class, false at first: a member of its own would make each reactor a word larger.
  bool velSpareFlag() const { return (flagsAndHolds_ & spare) != 0; }
  /// Sets the flag.
  void velSpareFlagIs(bool on) { flagsAndHolds_ = on ? flagsAndHolds_ | spare : flagsAndHolds_ & ~spare; }

 private:
  friend class Entity;
  friend class FollowedEntity;
  friend class SnapshotIterator;
  friend class Delivery;
  template <class T>
  friend class ReactorOn;

  static constexpr U32 inactive = 1;
  static constexpr U32 nondestructing = 2;
  static constexpr U32 unregistered = 4;  // in the list only to be detached when the notifier ends
  static constexpr U32 retired = 8;       // a zombie: here as well, so that a delivery asks once
  static constexpr U32 onOpenType = 16;   // other types of reactors may be in the list; never changes
  static constexpr U32 spare = 32;        // see velSpareFlag()
  static constexpr U32 follows = 64;      // may be an entity's follower; see velFollowNoMore()

  // What is told to all reactors alike: see ReactorOn.
  template <class R>
  static R* velAs(Reactor& reactor) {
    return &reactor;
  }
  static bool velListensForSure(Reactor const& reactor) { return reactor.velListens(); }
  static Reactor* velFollowerOf(Entity const&) { return nullptr; }

  using Counted::zombieIs;  // by velDoZombieReactors() alone, which keeps `retired` in step

  void link();
  void unlink();
  bool velInUse() override;

  /// Whether a pass over `entity`'s reactors still concerns this one. One that was unbound in the pass is
  /// called all the same, as one that was only unregistered.
  bool velAccepts(Entity const* entity) const {
    return (flagsAndHolds_ & (inactive | retired)) == 0 && (notifier_ == entity || notifier_ == nullptr);
  }

  /// Whether it is to be called, while it is in its notifier's list.
  bool velListens() const { return (flagsAndHolds_ & (inactive | unregistered | retired)) == 0; }

  Entity* notifier_ = nullptr;
  Reactor* previous_ = nullptr;  // neighbors in the notifier's list, a ring; null while in none
  Reactor* next_ = nullptr;
};

/// The reactor base of an entity type.
template <class T>
class ReactorOn : public Reactor {
 public:
  /// Whether other entity types can derive from T. An entity can have reactors on each of its types, and each
  /// knows the attributes of its own: a delivery asks those on open types, which are marked, what they are.
  /// The others are on a `final` type, which is the entity's own.
  static constexpr bool velIsOpen() { return !std::is_final_v<T>; }

  /// The entity watched, or null.
  Ptr<T const> notifier() const { return Ptr<T const>(static_cast<T const*>(velNotifier())); }

  /// Watches another entity, or none. The same one again: nothing.
  virtual void notifierIs(Ptr<T const> const& entity) { velNotifierIs(const_cast<T*>(entity.get())); }
  void notifierIs(Ptr<T const> const&) const { throwConstInstance(); }

 protected:
  ReactorOn() : Reactor(velIsOpen()) {}

 private:
  friend class Entity;

  // Whether it is to be called, and is known to be on T without a look at its type.
  static bool velListensForSure(Reactor const& reactor) {
    return !velIsOpen() && (reactor.flagsAndHolds_ & (inactive | unregistered | retired | onOpenType)) == 0;
  }

  // What follows a T; null for none, and where a T has no followers.
  static Reactor* velFollowerOf(Entity const& entity) {
    if constexpr (std::is_base_of_v<FollowedEntity, T>)
      return static_cast<T const&>(entity).velFollower();
    else
      return nullptr;
  }

  // The reactor as an R; null if it is on another type and does not know R's attributes.
  template <class R>
  static R* velAs(Reactor& reactor) {
    if (velIsOpen() || (reactor.flagsAndHolds_ & onOpenType) != 0) return dynamic_cast<R*>(&reactor);
    return static_cast<R*>(&reactor);
  }
};

/// The writable form of an entity type's reactor base: T::Notifiee is WritableReactor<T::NotifieeConst, T>.
template <class Base, class T>
class WritableReactor : public Base {
 public:
  /// The entity watched, or null; writable.
  Ptr<T> notifier() const { return Ptr<T>(static_cast<T*>(this->velNotifier())); }

  /// Watches another entity, or none. The same one again: nothing.
  virtual void notifierIs(Ptr<T> const& entity) { this->velNotifierIs(entity.get()); }
  /// A const view cannot become a writable notifier: throws "attempting to modify a const instance".
  void notifierIs(Ptr<T const> const& entity) final {
    if (entity) throwConstInstance();
    notifierIs(Ptr<T>());
  }
  /// Watches none.
  void notifierIs(std::nullptr_t) { notifierIs(Ptr<T>()); }
  /// Watches another entity, of a type that is derived from T.
  template <class U>
  requires std::convertible_to<U*, T*>
  void notifierIs(Ptr<U> const& entity) { notifierIs(Ptr<T>(entity)); }
  template <class U>
  requires std::convertible_to<U*, T*>
  void notifierIs(Ptr<U> const&) const { throwConstInstance(); }
  void notifierIs(Ptr<T> const&) const { throwConstInstance(); }
  void notifierIs(Ptr<T const> const&) const { throwConstInstance(); }
  void notifierIs(std::nullptr_t) const { throwConstInstance(); }
};

}  // namespace Vel
