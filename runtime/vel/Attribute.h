// One line per attribute.
//
// An entity class reads from top to bottom: the attributes' numbers, its reactor's callbacks (written out by
// hand), its attributes (one macro line each), its own operations. A whole one:
//
//   class Lamp final : public Vel::Entity {
//    public:
//     enum Attribute : Vel::AttributeId { brightnessId = Vel::firstAttributeId, socketId, guestId };
//
//     class NotifieeConst : public Vel::ReactorOn<Lamp> {
//      public:
//       virtual void onBrightness() { handleNotification(brightnessId); }
//       virtual void onSocket() { handleNotification(socketId); }
//       virtual void onGuest(Dova::IpGenAddr) {}
//       virtual void onGuestvelImmediate() {}
//       virtual void onGuest() { handleDefault("guest"); }
//     };
//     using Notifiee = Vel::WritableReactor<NotifieeConst, Lamp>;
//
//     VEL_VALUE(Vel::U32, brightness, Brightness) = 100;
//     VEL_POINTER(Socket, socket, Socket);
//     VEL_SET(Vel::HashSet<Dova::IpGenAddr>, guest, Guest);
//
//    public:
//     bool lit() const { return brightness() != 0; }
//     Vel::AttributeTable const& attributeTable() const override;
//   };
//
// and in the source file, for access by name:
//
//   Vel::AttributeTable const& Lamp::attributeTable() const {
//     using Self = Lamp;
//     static Vel::AttributeTable const table{VEL_ROW(brightness), VEL_ROW_FIXED(socket),
//     VEL_ROW_FIXED(guest)}; return table;
//   }
//
// A class that is not `final`, such as IO::PamManager, can be derived from. The derived class is written in
// the same way: with a NotifieeConst of its own, which hears of its own attributes, and with numbers that
// follow those of its base. On one entity the reactors of both classes hear of what they know, each of its
// own class's attributes:
//
//   class DimmableLamp final : public OpenLamp {
//    public:
//     enum Attribute : Vel::AttributeId { dimmingId = OpenLamp::brightnessId + 1 };
//     class NotifieeConst : public Vel::ReactorOn<DimmableLamp> {
//      public:
//       virtual void onDimming() { handleNotification(dimmingId); }
//     };
//     using Notifiee = Vel::WritableReactor<NotifieeConst, DimmableLamp>;
//     VEL_VALUE(bool, dimming, Dimming) = false;
//   };
//
// A macro declares nothing but named functions of a line or two, which forward to the templates in Entity.h
// and Collection.h; a debugger stops in a function with the attribute's name. Each mutator has a const
// overload that throws "attempting to modify a const instance", so a call through Vel::Ptr<Lamp const> fails
// when it is made. After a macro the class is `private`, where the macro has put its member.
#pragma once

#include "runtime/vel/Collection.h"
#include "runtime/vel/Text.h"

/// foo(), fooIs(value). The default can follow: VEL_VALUE(bool, foo, Foo) = true;
#define VEL_VALUE(Type, foo, Foo)                                                                            \
 public:                                                                                                     \
  /** The value of the attribute `foo`. */                                                                   \
  ::Vel::Read<Type> foo() const { return foo##_; }                                                           \
  /** Sets `foo` and tells the reactors; an equal value is nothing. */                                       \
  void foo##Is(Type const& value) {                                                                          \
    this->template velValueIs<NotifieeConst, foo##Id>(foo##_, value, [](NotifieeConst& r) { r.on##Foo(); }); \
  }                                                                                                          \
  void foo##Is(Type const&) const { ::Vel::throwConstInstance(); }                                           \
                                                                                                             \
 private:                                                                                                    \
  Type foo##_

/// As VEL_VALUE for a duration in seconds: NaN and negative values throw InvalidArgumentException.
#define VEL_SECONDS(foo, Foo)                                                                                \
 public:                                                                                                     \
  /** The value of the attribute `foo`, in seconds. */                                                       \
  ::Vel::Seconds foo() const { return foo##_; }                                                              \
  /** Sets `foo`, in seconds, and tells the reactors; NaN and less than 0 throw. */                          \
  void foo##Is(::Vel::Seconds const& value) {                                                                \
    ::Vel::requireDuration(#foo, value);                                                                     \
    this->template velValueIs<NotifieeConst, foo##Id>(foo##_, value, [](NotifieeConst& r) { r.on##Foo(); }); \
  }                                                                                                          \
  void foo##Is(::Vel::Seconds const&) const { ::Vel::throwConstInstance(); }                                 \
                                                                                                             \
 private:                                                                                                    \
  ::Vel::Seconds foo##_

/// As VEL_VALUE for a number that counts, with fooInc(n) and fooDec(n): modulo 2^32, and they return the new
/// value.
#define VEL_COUNTER(foo, Foo)                                            \
 public:                                                                 \
  /** Adds to `foo`, modulo 2^32, and returns the new value. */          \
  ::Vel::U32 foo##Inc(::Vel::U32 n) {                                    \
    ::Vel::U32 const value = foo##_ + n;                                 \
    foo##Is(value);                                                      \
    return value;                                                        \
  }                                                                      \
  ::Vel::U32 foo##Inc(::Vel::U32) const { ::Vel::throwConstInstance(); } \
  /** Subtracts from `foo`, modulo 2^32; the new value. */               \
  ::Vel::U32 foo##Dec(::Vel::U32 n) { return foo##Inc(0u - n); }         \
  ::Vel::U32 foo##Dec(::Vel::U32) const { ::Vel::throwConstInstance(); } \
  VEL_VALUE(::Vel::U32, foo, Foo)

/// A counted reference to another entity: foo(), fooIs(ptr). Null until set.
#define VEL_POINTER(Target, foo, Foo)                                                                      \
 public:                                                                                                   \
  /** What the attribute `foo` refers to, or null. */                                                      \
  ::Vel::Ptr<Target> foo() const { return foo##_; }                                                        \
  /** Refers to another entity or none, and tells the reactors; the same one is nothing. */                \
  void foo##Is(::Vel::Ptr<Target> const& ptr) {                                                            \
    this->template velValueIs<NotifieeConst, foo##Id>(foo##_, ptr, [](NotifieeConst& r) { r.on##Foo(); }); \
  }                                                                                                        \
  void foo##Is(::Vel::Ptr<Target> const&) const { ::Vel::throwConstInstance(); }                           \
                                                                                                           \
 private:                                                                                                  \
  ::Vel::Ptr<Target> foo##_

/// A constructor parameter: foo() alone. The constructor sets the member foo_.
#define VEL_FIXED(Type, foo)                       \
 public:                                           \
  /** The value of the attribute `foo`. */         \
  ::Vel::Read<Type> foo() const { return foo##_; } \
                                                   \
 private:                                          \
  Type const foo##_

/// What every keyed collection delivers. fooNotify(key): onFoo(key), then onFoo(), on each reactor.
#define VEL_COLLECTION_NOTIFY(Key, foo, Foo)                                                                \
 public:                                                                                                    \
  /** Tells the reactors of `foo` about a key: the callback with the key, then the one without. */          \
  void foo##Notify(Key key) {                                                                               \
    this->template velDeliverKey<NotifieeConst, foo##Id>([&key](NotifieeConst& r) { r.on##Foo(Key(key)); }, \
                                                         [](NotifieeConst& r) { r.on##Foo(); });            \
  }                                                                                                         \
  void foo##Notify(Key) const { ::Vel::throwConstInstance(); }                                              \
  /** Tells the reactors that the collection as a whole may have changed. */                                \
  void foo##NotifyImmediate() {                                                                             \
    this->template velDeliver<NotifieeConst, foo##Id>([](NotifieeConst& r) { r.on##Foo##velImmediate(); }); \
  }                                                                                                         \
  void foo##NotifyImmediate() const { ::Vel::throwConstInstance(); }

/// The reading half of a collection of entities, for one whose mutators are written by hand:
/// foo(key), fooCount(), fooIterator(), fooIteratorAfter(key), and the notifications.
#define VEL_ENTITIES_READ(Key, Element, foo, Foo)                                             \
  VEL_COLLECTION_NOTIFY(Key, foo, Foo)                                                        \
  /** Walks `foo`, and stands whatever happens to it meanwhile. */                            \
  using Foo##Iterator = ::Vel::EntityIterator<Key, Element, Element>;                         \
  /** The same, for reading. */                                                               \
  using Foo##IteratorConst = ::Vel::EntityIterator<Key, Element, Element const>;              \
  /** The element of `foo` under a key, or null. */                                           \
  ::Vel::Ptr<Element> foo(Key const& key) { return foo##_.find(key); }                        \
  /** The same, for reading. */                                                               \
  ::Vel::Ptr<Element const> foo(Key const& key) const { return foo##_.find(key); }            \
  /** How many elements `foo` has; O(1). */                                                   \
  ::Vel::U32 foo##Count() const { return foo##_.size(); }                                     \
  /** At the first element of `foo`. */                                                       \
  Foo##Iterator foo##Iterator() { return {this, foo##_}; }                                    \
  /** The same, for reading. */                                                               \
  Foo##IteratorConst foo##Iterator() const { return {this, foo##_}; }                         \
  /** At the first element of `foo`, for reading. */                                          \
  Foo##IteratorConst foo##IteratorConst() const { return {this, foo##_}; }                    \
  /** At the first element behind a key, which need not be there. */                          \
  Foo##Iterator foo##IteratorAfter(Key const& key) { return {this, foo##_, key}; }            \
  /** The same, for reading. */                                                               \
  Foo##IteratorConst foo##IteratorAfter(Key const& key) const { return {this, foo##_, key}; } \
                                                                                              \
 private:                                                                                     \
  ::Vel::EntityMap<Key, Element> foo##_

/// The removing half: fooDel(key) and fooDel(iterator) return the element or null; fooDelAll() removes what
/// was there at its start. One notification for each element that went.
#define VEL_ENTITIES_DEL(Key, Element, foo, Foo)                                            \
 public:                                                                                    \
  /** Removes an element of `foo`, tells the reactors, returns it; null if it is absent. */ \
  ::Vel::Ptr<Element> foo##Del(Key const& key) {                                            \
    ::Vel::Ptr<Element> removed = foo##_.remove(key);                                       \
    if (removed) foo##Notify(removed->velKey());                                            \
    return removed;                                                                         \
  }                                                                                         \
  /** The same for the element at which an iterator stands. */                              \
  ::Vel::Ptr<Element> foo##Del(::Vel::EntityIterator<Key, Element, Element> const& i) {     \
    return foo##Del(i.key());                                                               \
  }                                                                                         \
  /** Removes what is in `foo` now, and tells the reactors of each. */                      \
  void foo##DelAll() {                                                                      \
    ::Vel::MemoryHold const memory(this);                                                   \
    for (auto const& element : foo##_.elements())                                           \
      if (foo##_.find(element->velKey()) == element.get()) foo##Del(element->velKey());     \
  }                                                                                         \
  ::Vel::Ptr<Element> foo##Del(Key const&) const { ::Vel::throwConstInstance(); }           \
  ::Vel::Ptr<Element> foo##Del(::Vel::EntityIterator<Key, Element, Element> const&) const { \
    ::Vel::throwConstInstance();                                                            \
  }                                                                                         \
  void foo##DelAll() const { ::Vel::throwConstInstance(); }

/// Putting elements that were made elsewhere: fooIs(element) inserts it, replaces another element with its
/// key, or finds it there and does nothing; fooIs(key, element) is the same, and removes the key if the
/// element is null. An element under a key that is not its own throws InvalidArgumentException, as does
/// fooIs(null).
#define VEL_ENTITIES_PUT(Key, Element, foo, Foo, Class)                                                 \
 public:                                                                                                \
  /** Puts an element under its own key, and tells; null throws InvalidArgumentException. */            \
  void foo##Is(::Vel::Ptr<Element> const& element) {                                                    \
    if (!element) ::Vel::throwNullParameter("_" #foo, #Class "::" #foo);                                \
    Element* const present = foo##_.find(element->velKey());                                            \
    if (present == element.get()) return;                                                               \
    ::Vel::Ptr<Element> displaced;                                                                      \
    if (present)                                                                                        \
      displaced = foo##_.replace(element);                                                              \
    else                                                                                                \
      foo##_.insert(element);                                                                           \
    foo##Notify(element->velKey());                                                                     \
  }                                                                                                     \
  /** The same with the key; another than the element's throws; null removes what is there. */          \
  void foo##Is(Key const& key, ::Vel::Ptr<Element> const& element) {                                    \
    if (element && !(element->velKey() == key))                                                         \
      throw ::Vel::InvalidArgumentException("_" #foo " has another key than it is put under in " #Class \
                                            "::" #foo);                                                 \
    if (element)                                                                                        \
      foo##Is(element);                                                                                 \
    else                                                                                                \
      foo##Del(key);                                                                                    \
  }                                                                                                     \
  void foo##Is(::Vel::Ptr<Element> const&) const { ::Vel::throwConstInstance(); }                       \
  void foo##Is(Key const&, ::Vel::Ptr<Element> const&) const { ::Vel::throwConstInstance(); }

/// A collection of entities that are constructed from their key: the above, and fooIs(key), which finds or
/// creates (as newFoo(key) does, then the notification).
#define VEL_ENTITIES(Key, Element, foo, Foo)                                                  \
  VEL_ENTITIES_DEL(Key, Element, foo, Foo)                                                    \
  /** The element of `foo` under a key; made, and told, if it is missing. */                  \
  ::Vel::Ptr<Element> foo##Is(Key const& key) {                                               \
    auto const where = foo##_.where(key);                                                     \
    if (Element* const present = where.element()) return present;                             \
    ::Vel::Ptr<Element> const added = ::Vel::create<Element>(key);                            \
    foo##_.insert(where, added);                                                              \
    foo##Notify(added->velKey());                                                             \
    return added;                                                                             \
  }                                                                                           \
  /** Constructs and inserts, not notifying; a key that is there throws RangeException. */    \
  ::Vel::Ptr<Element> new##Foo(Key const& key) {                                              \
    auto const where = ::Vel::vacancy(foo##_, key, "new" #Foo, *this);                        \
    ::Vel::Ptr<Element> const added = ::Vel::create<Element>(key);                            \
    foo##_.insert(where, added);                                                              \
    return added;                                                                             \
  }                                                                                           \
  ::Vel::Ptr<Element> foo##Is(Key const&) const { ::Vel::throwConstInstance(); }              \
  ::Vel::Ptr<Element> new##Foo(Key const&) const { ::Vel::throwConstInstance(); }             \
  VEL_ENTITIES_READ(Key, Element, foo, Foo)

/// A collection of keys without elements, a HashSet or an OrderedSet: foo(key) says whether the key is there,
/// fooIs(key) adds and fooDel(key) removes; each returns whether it changed anything, and notifies if so.
#define VEL_SET(Set, foo, Foo)                                                                \
  VEL_COLLECTION_NOTIFY(Set::Key, foo, Foo)                                                   \
  /** Walks `foo`, and stands whatever happens to it meanwhile. */                            \
  using Foo##Iterator = ::Vel::SetIterator<Set>;                                              \
  /** The same. */                                                                            \
  using Foo##IteratorConst = Foo##Iterator;                                                   \
  /** Whether the key is in `foo`. */                                                         \
  bool foo(Set::Key const& key) const { return foo##_.contains(key); }                        \
  /** How many elements `foo` has; O(1). */                                                   \
  ::Vel::U32 foo##Count() const { return foo##_.size(); }                                     \
  /** At the first key of `foo`. */                                                           \
  Foo##Iterator foo##Iterator() const { return {this, foo##_}; }                              \
  /** The same. */                                                                            \
  Foo##Iterator foo##IteratorConst() const { return {this, foo##_}; }                         \
  /** At the first key behind another, which need not be there. */                            \
  Foo##Iterator foo##IteratorAfter(Set::Key const& key) const { return {this, foo##_, key}; } \
  /** Adds a key to `foo`, and tells the reactors; false if it was there. */                  \
  bool foo##Is(Set::Key key) {                                                                \
    bool const changed = foo##_.insert(key);                                                  \
    if (changed) foo##Notify(key);                                                            \
    return changed;                                                                           \
  }                                                                                           \
  /** Removes a key from `foo`, and tells the reactors; false if it was not there. */         \
  bool foo##Del(Set::Key key) {                                                               \
    bool const changed = foo##_.remove(key);                                                  \
    if (changed) foo##Notify(key);                                                            \
    return changed;                                                                           \
  }                                                                                           \
  /** The same for the key at which an iterator stands. */                                    \
  bool foo##Del(Foo##Iterator const& i) { return foo##Del(i.key()); }                         \
  /** Removes what is in `foo` now, and tells the reactors of each. */                        \
  void foo##DelAll() {                                                                        \
    ::Vel::MemoryHold const memory(this);                                                     \
    std::vector<Set::Key> all;                                                                \
    all.reserve(foo##Count());                                                                \
    for (auto i = foo##Iterator(); i; ++i) all.push_back(i.key());                            \
    for (auto const& key : all) foo##Del(key);                                                \
  }                                                                                           \
  bool foo##Is(Set::Key) const { ::Vel::throwConstInstance(); }                               \
  bool foo##Del(Set::Key) const { ::Vel::throwConstInstance(); }                              \
  bool foo##Del(Foo##Iterator const&) const { ::Vel::throwConstInstance(); }                  \
  void foo##DelAll() const { ::Vel::throwConstInstance(); }                                   \
                                                                                              \
 private:                                                                                     \
  Set foo##_

/// A row of an attribute table, for an attribute that can be set by name.
#define VEL_ROW(foo)                                                                                       \
  ::Vel::AttributeRow {                                                                                    \
#foo, foo##Id, [](::Vel::Entity const& e) { return ::Vel::textOf(static_cast<Self const&>(e).foo##_); }, \
        [](::Vel::Entity& e, std::string_view text) {                                                       \
          Self& self = static_cast<Self&>(e);                                                               \
          return ::Vel::setFromText(text, self.foo##_, [&self](auto const& value) { self.foo##Is(value); }); \
        } \
  }
/// A row for an attribute that can only be read by name.
#define VEL_ROW_FIXED(foo)                                                                                \
  ::Vel::AttributeRow {                                                                                   \
#foo, foo##Id,                                                                                        \
        [](::Vel::Entity const& e) { return ::Vel::textOf(static_cast<Self const&>(e).foo##_); }, nullptr \
  }
