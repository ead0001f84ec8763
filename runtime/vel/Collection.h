// SPDX-License-Identifier: Apache-2.0
// Keyed collections, and iterators that survive every change.
//
//   EntityMap<Key, Element>   counted elements that carry their key (Element::velKey())
//   HashSet<Key>              keys alone, in the hash's order
//   OrderedSet<Key>           keys alone, in ascending order
//
// All sizes are O(1). An iterator may stand while anything happens to the collection: its own element is
// removed, others come and go, the table grows, the entity that holds it is dropped (the iterator holds that
// entity's memory). Every element that is there during the whole walk is visited exactly once; so a walk
// copies no keys.
//
//   for (auto i = status->pimNeighborIterator(); i; ++i)
//     if (i->intf() == removed) status->pimNeighborDel(i);
#pragma once

#include <iterator>
#include <ostream>
#include <utility>
#include <vector>

#include "runtime/vel/Entity.h"
#include "runtime/vel/OrderedSet.h"
#include "runtime/vel/Text.h"
#include "runtime/vel/detail/HashTable.h"

namespace Vel {

/// Asks for memory before it is needed.
namespace Prefetch {
inline constexpr std::size_t line = 64, mostLines = 4;

inline void bytes(void const* first, std::size_t count) {
  for (std::size_t i = 0; i < count && i < mostLines * line; i += line)
    __builtin_prefetch(static_cast<char const*>(first) + i);
}
template <class T>
void object(T const* object) {
  bytes(object, sizeof(T));
}
}  // namespace Prefetch

/// How a collection of entities stores an element.
template <class K, class Element>
struct EntitySlot {
  using Key = K;
  using Stored = Element*;

  static U32 tag(Key const&) { return 0; }
  static U32 mark(Key const& key) { return orderOf(key); }
  static decltype(auto) key(U32, Element const* element) { return element->velKey(); }
  static bool holds(Element const* element, Key const& key) { return element->velKey() == key; }
};

/// A collection of counted elements by key.
template <class Key, class Element>
class EntityMap {
 public:
  using Table = HashTable<EntitySlot<Key, Element>>;

  EntityMap() = default;
  /// The elements are not to be found here any more while they are released.
  ~EntityMap() {
    Table released;
    released.swap(table_);
    for (auto i = released.first(); i.position != released.end(); i = released.next(i))
      released.at(i.position)->deleteRef();
  }

  /// The element, or null.
  Element* find(Key const& key) const {
    U32 const at = table_.find(key);
    return at != Table::none ? table_.at(at) : nullptr;
  }

  /// Where a key is or belongs, for one search instead of several. It holds as long as the map is unchanged;
  /// what is done with an older one searches again.
  class Where {
   public:
    /// The element that was found, or null.
    Element* element() const { return element_; }

   private:
    friend class EntityMap;
    Where(Table const& table, Key const& key) : where_(table.where(key)), epoch_(table.epoch()) {
      if (where_.found) element_ = table.at(where_.at);
    }
    typename Table::Where where_;
    U32 epoch_;
    Element* element_ = nullptr;
  };
  /// Where a key is or belongs.
  Where where(Key const& key) const { return Where(table_, key); }

  /// Throws RangeException if the element's key is there already, and std::bad_alloc; then nothing has
  /// changed.
  void insert(Ptr<Element> const& element) {
    if (!table_.insert(element->velKey(), element.get())) [[unlikely]]
      throwPresent("insert", element->fwkType(), "its key");
    element->newRef();
  }
  /// The same, where the element's key belongs. REQUIRES: nothing was found there.
  void insert(Where const& where, Ptr<Element> const& element) {
    if (where.epoch_ != table_.epoch()) return insert(element);
    table_.insert(where.where_, element->velKey(), element.get());
    element->newRef();
  }

  /// Puts an element where another one with the same key is. REQUIRES: there is one. The displaced element.
  Ptr<Element> replace(Ptr<Element> const& element) {
    U32 const at = table_.find(element->velKey());
    Ptr<Element> const displaced(table_.at(at));
    element->newRef();
    table_.atIs(at, element.get());
    displaced->deleteRef();
    return displaced;
  }

  /// The removed element, or null if the key is absent.
  Ptr<Element> remove(Key const& key) {
    U32 const at = table_.find(key);
    if (at == Table::none) return nullptr;
    return Ptr<Element>::owning(table_.remove(at));  // the collection's reference
  }

  U32 size() const { return table_.size(); }
  Table const& table() const { return table_; }

  /// What has just left, while the owner's reactors are told, or null; see leave().
  Element* leaving() const { return leaving_; }

  /// Calls `tell()`, which tells the owner's reactors that an element was removed or replaced. One that is
  /// followed still is meanwhile, so that who made that so can find it and act in its turn, and is not
  /// afterwards. For null, and for elements that cannot be followed, no more than the call.
  template <class Tell>
  void leave(Entity const& owner, Element* element, Tell const& tell) {
    if constexpr (std::is_base_of_v<FollowedEntity, Element>) {
      if (!element) return tell();
      MemoryHold const memory(&owner);
      Element* const before = std::exchange(leaving_, element);
      tell();
      element->velFollowerIs(nullptr);
      leaving_ = before;
    } else {
      tell();
    }
  }

  /// Counted copies of all elements, for operations on "what is here now".
  std::vector<Ptr<Element>> elements() const {
    std::vector<Ptr<Element>> all;
    all.reserve(size());
    for (auto i = table_.first(); i.position != table_.end(); i = table_.next(i))
      all.emplace_back(table_.at(i.position));
    return all;
  }

 private:
  Table table_;
  Element* leaving_ = nullptr;
};

/// Where a key belongs that `mutator` is about to insert for `owner`. A key that is there already throws
/// RangeException "<mutator> of <type>: <key> is there already".
template <class Key, class Element>
typename EntityMap<Key, Element>::Where vacancy(EntityMap<Key, Element> const& map, Key const& key,
                                                std::string_view mutator, Counted const& owner) {
  auto const where = map.where(key);
  if (where.element()) [[unlikely]]
    throwPresent(mutator, owner.fwkType(), textOf(key));
  return where;
}

/// What makes an iterator a range of its own: `for (auto& neighbor : status->pimNeighborIterator())`.
template <class Iterator>
class IteratorRange {
 public:
  /// The iterator itself.
  Iterator begin() const { return static_cast<Iterator const&>(*this); }
  /// The end of any walk.
  std::default_sentinel_t end() const { return {}; }
  /// Whether the walk is over.
  friend bool operator==(Iterator const& i, std::default_sentinel_t) { return !i; }
};

/// Walks an EntityMap in the order of its table. View is Element, or what all of its elements are; or const.
template <class Key, class Element, class View>
class EntityIterator : public IteratorRange<EntityIterator<Key, Element, View>> {
 public:
  /// What is walked.
  using Map = EntityMap<Key, Element>;

  EntityIterator() = default;
  /// At the first element. Holds the memory of the entity that has the map.
  EntityIterator(Entity const* owner, Map const& map) : owner_(owner), map_(&map) {
    arriveAt(map.table().first());
  }
  /// Begins behind a key, which need not be there: how a walk is resumed that somebody remembers by its last
  /// key.
  EntityIterator(Entity const* owner, Map const& map, Key const& after) : owner_(owner), map_(&map) {
    arriveAt(map.table().after(after));
  }

  /// False when the walk is over.
  explicit operator bool() const { return static_cast<bool>(current_); }

  /// The element, also after it was removed. REQUIRES: true.
  View& operator*() const { return static_cast<View&>(*current_); }
  /// The element. REQUIRES: true.
  View* operator->() const { return &**this; }
  /// The element, counted; null when the walk is over.
  Ptr<View> ptr() const { return static_cast<View*>(current_.get()); }
  /// The element's key. REQUIRES: true.
  decltype(auto) key() const { return current_->velKey(); }

  /// On to the next element, wherever it is by now. REQUIRES: true.
  EntityIterator& operator++() {
    auto const& table = map_->table();
    if (table.epoch() == epoch_) {
      arriveAt(table.next(place_));
    } else {
      Key const passed = current_->velKey();
      current_ = nullptr;  // may be the last reference, and its end may change the collection
      arriveAt(table.after(passed));
    }
    return *this;
  }

 private:
  // A walk over many elements waits for memory more than for anything else, so what comes next is fetched
  // ahead: first the element, and when that has come, what it points to.
  static constexpr U32 fetchedAhead = 8;

  void arriveAt(typename Map::Table::Place place) {
    auto const& table = map_->table();
    U32 const position = place.position;
    place_ = place;
    epoch_ = table.epoch();
    if (position == table.end()) {
      current_ = nullptr;
      return;
    }
    auto const* const all = table.all();
    if (U32 const later = position + fetchedAhead; table.isUsed(later)) Prefetch::object(all[later]);
    if constexpr (requires(Element const& element) { element.velPrefetch(); })
      if (U32 const soon = position + fetchedAhead / 2; table.isUsed(soon)) all[soon]->velPrefetch();
    current_ = Ptr<Element>(all[position]);
  }

  MemoryHold owner_;
  Map const* map_ = nullptr;
  Ptr<Element> current_;
  typename Map::Table::Place place_;
  U32 epoch_ = 0;
};

/// A set of keys in the order of their reversed hash.
template <class K>
class HashSet {
 public:
  /// What the set holds.
  using Key = K;
  /// How the table holds a key.
  using Slot = typename SlotOf<Key>::Type;
  /// The table behind it.
  using Table = HashTable<Slot>;

  class Cursor {
   public:
    bool first(HashSet const& set) { return arriveAt(set.table_, set.table_.first()); }
    bool after(HashSet const& set, Key const& key) { return arriveAt(set.table_, set.table_.after(key)); }
    bool next(HashSet const& set) {
      auto const& table = set.table_;
      if (table.epoch() != epoch_) return arriveAt(table, table.after(key_));
      place_ = table.next(place_);
      return take(table);
    }
    Key const& key() const { return key_; }

   private:
    bool arriveAt(Table const& table, typename Table::Place place) {
      place_ = place;
      all_ = table.all();
      epoch_ = table.epoch();
      return take(table);
    }
    bool take(Table const& table) {
      if (place_.position == table.end()) return false;
      key_ = Slot::key(table.tagAt(place_.position), all_[place_.position]);
      return true;
    }

    Key key_;
    typename Table::Place place_;
    typename Table::Stored const* all_ = nullptr;  // while the table is unchanged
    U32 epoch_ = 0;
  };

  /// Whether the key is there.
  bool contains(Key const& key) const { return table_.find(key) != Table::none; }
  /// True if the key was absent.
  bool insert(Key const& key) { return table_.insert(key, Slot::stored(key)); }
  /// True if the key was present.
  bool remove(Key const& key) {
    U32 const at = table_.find(key);
    if (at != Table::none) table_.remove(at);
    return at != Table::none;
  }
  /// How many keys there are.
  U32 size() const { return table_.size(); }

  /// Asks for the memory of the first keys, before a walk.
  void velPrefetch() const { table_.prefetch(); }

 private:
  Table table_;
};

/// Walks a HashSet or an OrderedSet.
template <class Set>
class SetIterator : public IteratorRange<SetIterator<Set>> {
 public:
  /// What is walked.
  using Key = typename Set::Key;

  SetIterator() = default;
  /// At the first key. Holds the memory of the entity that has the set.
  SetIterator(Entity const* owner, Set const& set) : owner_(owner), set_(&set), valid_(cursor_.first(set)) {}
  /// Begins behind a key, which need not be there.
  SetIterator(Entity const* owner, Set const& set, Key const& after)
      : owner_(owner), set_(&set), valid_(cursor_.after(set, after)) {}

  /// False when the walk is over.
  explicit operator bool() const { return valid_; }

  /// The key, also after it was removed. REQUIRES: true.
  Key const& operator*() const { return cursor_.key(); }
  /// The key. REQUIRES: true.
  Key const* operator->() const { return &cursor_.key(); }
  /// The key. REQUIRES: true.
  Key const& key() const { return cursor_.key(); }

  /// On to the next key. REQUIRES: true.
  SetIterator& operator++() {
    valid_ = cursor_.next(*set_);
    return *this;
  }

 private:
  MemoryHold owner_;
  Set const* set_ = nullptr;
  typename Set::Cursor cursor_;
  bool valid_ = false;
};

/// A collection in text: its keys, separated by ", ".
template <class Iterator>
std::ostream& writeKeys(std::ostream& os, Iterator i) {
  for (char const* separator = ""; i; ++i, separator = ", ") os << separator << i.key();
  return os;
}
/// The keys of a collection.
template <class Key, class Element>
std::ostream& operator<<(std::ostream& os, EntityMap<Key, Element> const& map) {
  return writeKeys(os, EntityIterator<Key, Element, Element const>(nullptr, map));
}
/// The keys of a set.
template <class Key>
std::ostream& operator<<(std::ostream& os, HashSet<Key> const& set) {
  return writeKeys(os, SetIterator<HashSet<Key>>(nullptr, set));
}
/// The keys of a set, in ascending order.
template <class Key>
std::ostream& operator<<(std::ostream& os, OrderedSet<Key> const& set) {
  return writeKeys(os, SetIterator<OrderedSet<Key>>(nullptr, set));
}

}  // namespace Vel
