// SPDX-License-Identifier: Apache-2.0
// Entities: counted objects whose attributes can be watched.
//
// What an entity class looks like, top to bottom, is shown in Attribute.h. This header has what the generated
// operations forward to.
#pragma once

#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/vel/Reactor.h"

namespace Vel {

/// A copy of an entity's reactors: counted, in the order of registration, each released as the walk passes
/// it. Up to 16 of them need no heap.
class VEL_API SnapshotIterator {
 public:
  explicit SnapshotIterator(Entity const& entity);
  SnapshotIterator(SnapshotIterator const&) = delete;
  SnapshotIterator& operator=(SnapshotIterator const&) = delete;
  ~SnapshotIterator();

  explicit operator bool() const { return position_ < count_; }
  Reactor& operator*() const { return *reactors_[position_]; }
  SnapshotIterator& operator++() {
    reactors_[position_++]->deleteRef();
    return *this;
  }

 private:
  static constexpr U32 inlineCapacity = 16;
  Reactor* inline_[inlineCapacity];
  Reactor** reactors_ = inline_;
  U32 count_ = 0;
  U32 position_ = 0;
};

/// A delivery to few reactors. It walks the entity's list in place, and counts no reactor, for as long as the
/// list, the reactors and the entity stay. What is about to change that gives it a snapshot of what it still
/// has to do first, so that no caller can tell the difference from a snapshot taken at the start. The entity
/// lives until it has ended.
class VEL_API Delivery {
 public:
  static constexpr U32 capacity = 16;

  /// From `first` to the last reactor that is in the ring now. REQUIRES: they are at most `capacity`.
  explicit Delivery(Reactor* first) : at_(first), last_(first->previous_) {}
  Delivery(Delivery const&) = delete;
  Delivery& operator=(Delivery const&) = delete;

  Reactor* last() const { return last_; }
  /// REQUIRES: no snapshot has been taken.
  void atIs(Reactor* reactor) { at_ = reactor; }

  bool hasSnapshot() const { return count_ != 0; }
  /// The reactor that is being called comes first in it.
  void takeSnapshot();

 private:
  friend class Entity;

  // Written one by one and read at once: two neighbors would be written as a pair, which some processors
  // cannot pass on to a read of one of them before it has reached the cache.
  Reactor* at_;
  U32 count_ = 0;
  Reactor* const last_;
  Reactor* snapshot_[capacity];
};

/// One row of an entity type's attribute table; see VEL_ROW in Attribute.h.
struct AttributeRow {
  std::string_view name;                      ///< As it is given to `attribute()` and `attributeIs()`.
  AttributeId id;                             ///< The attribute's number.
  std::string (*text)(Entity const& entity);  ///< The value in text.
  /// False if the text does not fit. Null if the attribute cannot be set by name.
  bool (*textIs)(Entity& entity, std::string_view text);
};

/// The attributes of a type, its base's first, in the order of their declaration.
using AttributeTable = std::vector<AttributeRow>;

/// Base of everything that can be watched.
class VEL_API Entity : public Counted {
 public:
  /// The text of an attribute. An unknown name throws RangeException that names type and attribute.
  std::string attribute(std::string_view name) const;

  /// Sets an attribute from text. An unknown name, one that cannot be set, and a text that does not fit throw
  /// RangeException that says which; nothing is changed then.
  void attributeIs(std::string_view name, std::string_view text);
  void attributeIs(std::string_view, std::string_view) const { throwConstInstance(); }

  /// The type's attributes; empty for a type that has none.
  virtual AttributeTable const& attributeTable() const;

  /// Calls `onZeroReferences()` on each reactor, before destruction.
  void zeroReferencesIs(bool zero) override;
  void zeroReferencesIs(bool) const { throwConstInstance(); }

 protected:
  Entity() = default;
  ~Entity() override;

  /// Reactors that did not keep the entity are detached: their notifier reads null.
  void doDetach() noexcept override;

  /// True if there may be a reactor that is to be called.
  bool velWatched() const { return notifiees_ != nullptr; }

  /// Calls `call(reactor)` on each reactor of type R that is registered now, each under its own guard, and
  /// keeps this entity alive meanwhile. `id` is what a throwing reactor is told. `call` is copied.
  template <class R, AttributeId id, class Call>
  VEL_INLINE void velDeliver(Call const& call) {
    velTell<R>([call]<bool sure>(Entity const&, Reactor& reactor)
                   VEL_INLINE { velCall<R, id, sure>(reactor, call); });
  }

  /// The same for a key of a collection: two callbacks on each reactor, each under its own guard.
  template <class R, AttributeId id, class KeyCall, class Call>
  VEL_INLINE void velDeliverKey(KeyCall const& keyCall, Call const& call) {
    velTell<R>([keyCall, call]<bool sure>(Entity const& self, Reactor& reactor) VEL_INLINE {
      velCall<R, id, sure>(reactor, keyCall);
      if (reactor.velAccepts(&self)) velCall<R, id, sure>(reactor, call);
    });
  }

  /// Sets a value or pointer attribute: equal is nothing, different is stored, then delivered. True if
  /// changed.
  template <class R, AttributeId id, class Value, class Call>
  bool velValueIs(Value& stored, Value const& value, Call const& call) {
    if (stored == value) return false;
    [[maybe_unused]] Value const displaced =
        std::exchange(stored, value);  // dropped only when everybody has been told
    velDeliver<R, id>(call);
    return true;
  }

 private:
  friend class Reactor;
  friend class SnapshotIterator;

  using Act = void (*)(Entity const& self, Reactor& reactor, void const* context);

  template <class F>
  static void velAct(Entity const& self, Reactor& reactor, void const* act) {
    if (reactor.velAccepts(&self)) static_cast<F const*>(act)->template operator()<false>(self, reactor);
  }

  // `act` does not throw. It is told whether the reactor is an R for sure, which nearly all are. It is copied
  // to where it is passed on by its address: in the loop it needs no memory.
  template <class R, class F>
  VEL_INLINE void velTell(F const& act) {
    if (Reactor* const follower = R::velFollowerOf(*this)) return velTellFollowed(*follower, act);
    if (notifiees_) velForEachReactor<R>(act);
  }

  // The follower comes first, and belongs to this entity meanwhile. Whatever it registers here belongs to a
  // later pass.
  template <class F>
  void velTellFollowed(Reactor& follower, F act) {
    MemoryHold const memory(this), followerMemory(&follower);
    Entity* const other = std::exchange(follower.notifier_, this);
    if (notifiees_) [[unlikely]]
      velForEachOfSnapshot(&velAct<F>, &act, &follower);
    else
      velAct<F>(*this, follower, &act);
    follower.notifier_ = other;
  }

  template <class R, class F>
  void velForEachReactor(F act) {
    Act const any = &velAct<F>;
    if (reactors_ > Delivery::capacity || delivery_ || threadSafe()) [[unlikely]] {
      F const copy = act;
      return velForEachOfSnapshot(any, &copy);
    }
    MemoryHold const memory(this);
    Reactor* r = notifiees_;
    Delivery delivery(r);
    delivery_ = &delivery;
    for (;;) {
      if (R::velListensForSure(*r)) [[likely]] {
        act.template operator()<true>(*this, *r);
      } else {
        F const copy = act;
        velActIfListening(any, *r, &copy);
      }
      if (delivery.hasSnapshot()) [[unlikely]] {
        F const copy = act;
        return velFinish(any, &copy);
      }
      if (r == delivery.last()) [[likely]]
        break;
      delivery.atIs(r = r->next_);
    }
    delivery_ = nullptr;
  }
  void velActIfListening(Act act, Reactor& reactor, void const* context);
  void velForEachOfSnapshot(Act act, void const* context, Reactor* follower = nullptr);
  void velForEachWithoutHeap(Act act, void const* context, Reactor* follower);
  void velFinish(Act act, void const* context);

  // Called before the list changes or a reactor in it ends.
  void velDisturb() {
    if (delivery_ && !delivery_->hasSnapshot()) delivery_->takeSnapshot();
  }

  template <class R, AttributeId id, bool sure, class Call>
  VEL_INLINE static void velCall(Reactor& reactor, Call const& call) noexcept {
    R* const typed = sure ? static_cast<R*>(&reactor) : R::template velAs<R>(reactor);
    if (!typed) return;
    try {
      call(*typed);
    } catch (...) {
      reactor.handleNotificationException(id);
    }
  }

  Reactor* notifiees_ = nullptr;  // the first of a ring in the order of registration
  Delivery* delivery_ = nullptr;  // the one that walks the ring
  U32 reactors_ = 0;              // in the ring
};

/// Base of entities of which there are so many that a reactor of its own for each costs too much. Such an
/// entity can have a follower: one reactor that is told of the changes of all that it follows, as if it were
/// the first in the list of each. In its callbacks, and only there, its notifier is the entity that changed.
///
/// Following needs no memory and counts nothing: an entity keeps its follower, the follower keeps none. An
/// element of a collection (of one at a time) is followed until it leaves that; see EntityMap::leave().
class VEL_API FollowedEntity : public Entity {
 public:
  /// The follower, or null.
  Reactor* velFollower() const { return velFollower_.get(); }
  /// Sets or, by null, removes the follower. False, and nothing has changed, if there is another one that
  /// still follows; see Reactor::velFollowNoMore(). REQUIRES: a reactor on this entity's type, whose
  /// notifier and isNondestructing() are not set, also not from inside its callbacks.
  bool velFollowerIs(Vel::Ptr<Vel::Reactor> const& follower);
  bool velFollowerIs(Vel::Ptr<Vel::Reactor> const&) const { throwConstInstance(); }

 private:
  Ptr<Reactor> velFollower_;
};

}  // namespace Vel
