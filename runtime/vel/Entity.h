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

/// A copy of an entity's reactors, taken before the first callback: counted, in the order of registration,
/// each released as the walk passes it. Up to 16 of them need no heap.
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

/// One row of an entity type's attribute table; see VEL_ROW in Attribute.h.
struct AttributeRow {
  std::string_view name;
  AttributeId id;
  std::string (*text)(Entity const& entity);
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

  /// A reference for as long as something runs or stands: a delivery, a handler, an iterator. It is counted
  /// apart as well, so that one can tell an entity that somebody has from one that is merely still in use.
  class Keep {
   public:
    Keep() = default;
    explicit Keep(Entity const* entity) : entity_(entity) { take(); }
    Keep(Keep const& other) : entity_(other.entity_) { take(); }
    Keep(Keep&& other) noexcept : entity_(std::exchange(other.entity_, nullptr)) {}
    Keep& operator=(Keep other) noexcept {
      std::swap(entity_, other.entity_);
      return *this;
    }
    ~Keep() {
      if (!entity_) return;
      --entity_->keeps_;
      entity_->deleteRef();
    }

   private:
    void take() const {
      if (!entity_) return;
      entity_->newRef();
      ++entity_->keeps_;
    }

    Entity const* entity_ = nullptr;
  };

 protected:
  Entity() = default;
  ~Entity() override;

  /// Reactors that did not keep the entity are detached: their notifier reads null.
  void doDetach() noexcept override;

  /// True if somebody refers to this entity, and not only what runs or stands at the moment.
  bool velReferred() const { return references() > keeps_; }

  /// Calls `call(reactor)` on each reactor of type R in a snapshot, each under its own guard, and keeps this
  /// entity alive meanwhile. `id` is what a throwing reactor is told.
  template <class R, class Call>
  void velDeliver(AttributeId id, Call const& call) {
    if (!notifiees_) return;
    Keep const keep(this);
    if (notifiees_->next_ == notifiees_) {
      Ptr<Reactor> const only(notifiees_);
      if (only->isRegisteredNotifiee()) velCall<R>(*only, id, call);
      return;
    }
    velForEachReactor([&](Reactor& reactor) { velCall<R>(reactor, id, call); });
  }

  /// The same for a key of a collection: two callbacks on each reactor, each under its own guard.
  template <class R, class KeyCall, class Call>
  void velDeliverKey(AttributeId id, KeyCall const& keyCall, Call const& call) {
    if (!notifiees_) return;
    Keep const keep(this);
    velForEachReactor([&](Reactor& reactor) {
      velCall<R>(reactor, id, keyCall);
      velCall<R>(reactor, id, call);
    });
  }

  /// Sets a value or pointer attribute: equal is nothing, different is stored, then delivered. True if
  /// changed.
  template <class R, class Value, class Call>
  bool velValueIs(Value& stored, Value const& value, AttributeId id, Call const& call) {
    if (stored == value) return false;
    [[maybe_unused]] Value const displaced =
        std::exchange(stored, value);  // dropped only when everybody has been told
    velDeliver<R>(id, call);
    return true;
  }

 private:
  friend class Reactor;
  friend class SnapshotIterator;

  // Whatever has changed must be told: where there is no memory for the snapshot, it is taken on the stack. `act` does
  // not throw.
  template <class Act>
  void velForEachReactor(Act const& act) {
    try {
      for (SnapshotIterator i(*this); i; ++i) act(*i);
    } catch (std::bad_alloc const&) {
      velForEachReactorWithoutHeap(
          [](Reactor& reactor, void const* a) { (*static_cast<Act const*>(a))(reactor); }, &act);
    }
  }
  void velForEachReactorWithoutHeap(void (*act)(Reactor& reactor, void const* context), void const* context);

  template <class R, class Call>
  void velCall(Reactor& reactor, AttributeId id, Call const& call) {
    if (!reactor.velAccepts(this)) return;
    R* const typed = R::velMixedTypes ? dynamic_cast<R*>(&reactor) : static_cast<R*>(&reactor);
    if (!typed) return;
    try {
      call(*typed);
    } catch (...) {
      reactor.handleNotificationException(id);
    }
  }

  mutable U32 keeps_ = 0;
  Reactor* notifiees_ = nullptr;  // the first of a ring in the order of registration
};

}  // namespace Vel
