// The table behind all hashed collections.
//
// Open addressing, with everything in one order: ascending bit-reversed hash, then key. The home of an entry
// is the high bits of its reversed hash and a bucket's entries follow one another in order, so the array
// itself is sorted (cyclically: a few entries may run over the end to the front). That gives three things at
// once:
//
//   - a walk is a walk over an array, in an order that depends on the keys alone, never on the table's size;
//   - growth keeps the order, so it does not disturb a walk;
//   - a walk can be resumed behind any key, whether or not it is still there. Iterators rely on it to survive
//     every change: while the table is unchanged they step, otherwise they search for their successor.
//
// The price of that order: keys that arrive in it, as when one collection is copied into another, gather at one end
// of a table that is still small. So positions in a long run are found by doubling steps, a table whose runs become
// too long grows early, and one is made smaller only if that leaves no long run behind.
//
// There are two kinds of slots: those that hold a value (ValueSlot, Dova::AddressSlot) and EntitySlot
// (Collection.h), a pointer with its hash.
#pragma once

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "runtime/vel/Hash.h"

namespace Vel {

/// A table of `Slot`s. A Slot is cheap to move, default-constructs to unused, and offers
///   using Key; bool used() const; U32 order() const (bits 0 and 1 zero); key() const;
/// and for searching `static U32 orderOf(Key const&)`, which is its bit-reversed hash.
template <class Slot>
class HashTable {
 public:
  using Key = typename Slot::Key;

  HashTable() = default;
  HashTable(HashTable const&) = delete;
  HashTable& operator=(HashTable const&) = delete;
  ~HashTable() { delete[] slots_; }

  void swap(HashTable& other) noexcept {
    std::swap(slots_, other.slots_);
    std::swap(size_, other.size_);
    std::swap(epoch_, other.epoch_);
    std::swap(low_, other.low_);
    std::swap(bits_, other.bits_);
  }

  U32 size() const { return size_; }

  /// Changes whenever a position may have become invalid.
  U32 epoch() const { return epoch_; }

  /// The slot of a key, or null. Valid until the next change.
  Slot* find(Key const& key) const {
    if (size_ == 0) return nullptr;
    U32 const order = Slot::orderOf(key);
    U32 const at = search(order, key, [](bool less, bool equal) { return less && !equal; });
    Slot& slot = slots_[at & mask()];
    return slot.used() && slot.order() == order && slot.key() == key ? &slot : nullptr;
  }

  /// Inserts a slot whose key is absent. Throws std::bad_alloc, and then nothing has changed.
  void insert(Slot slot) {
    if (size_ >= (slots_ ? limit(bits_) : 0)) resize(slots_ ? bits_ + 1 : 0);
    U32 at = placeOf(slot);
    while (at - home(slot.order()) > longRun && size_ > buckets() / 8) {
      resize(bits_ + 1);
      at = placeOf(slot);
    }
    place(std::move(slot), at & mask());
    ++size_;
    ++epoch_;
  }

  /// Removes a slot that `find` gave, and hands it over.
  Slot remove(Slot* slot) {
    Slot removed = std::move(*slot);
    U32 hole = static_cast<U32>(slot - slots_);
    for (;;) {
      U32 const next = (hole + 1) & mask();
      if (next == hole || !slots_[next].used() || displacement(next) == 0) break;
      slots_[hole] = std::move(slots_[next]);
      low_ = std::min(low_, hole);  // a chain that ran over to the front draws later entries after it
      hole = next;
    }
    slots_[hole] = Slot();
    --size_;
    ++epoch_;
    shrink();
    return removed;
  }

  /// A position in the walk: an index that counts on past the end for the entries that run over to the front.
  /// The first one; `end()` if there is none.
  U32 first() const {
    if (size_ == 0) return end();
    U32 const position = nextUsed(std::max(wrapped(), low_));
    if (position <= mask()) low_ = position;
    return position;
  }

  /// The position behind `position` in an unchanged table.
  U32 next(U32 position) const { return nextUsed(position + 1); }

  /// The first position behind a key, which need not be there.
  U32 after(U32 order, Key const& key) const {
    if (size_ == 0) return end();
    U32 const at = search(order, key, [](bool less, bool equal) { return less || equal; });
    if (at >= lastPosition()) return end();
    return nextUsed(at);
  }

  /// Asks for the memory in which a walk begins.
  void prefetch() const {
    constexpr std::size_t line = 64, lines = 3;
    for (std::size_t i = 0; i < lines; ++i)
      __builtin_prefetch(reinterpret_cast<char const*>(slots_) + i * line);
  }

  Slot const& at(U32 position) const { return slots_[position & mask()]; }

  static constexpr U32 end() { return ~0u; }

 private:
  static constexpr U32 smallBits = 3;

  // A table of up to 8 buckets may fill up; a larger one keeps an eighth free.
  static constexpr U64 limit(U32 bits) {
    U64 const buckets = U64{1} << bits;
    return bits <= smallBits ? buckets : buckets - buckets / 8;
  }

  // Uniform hashes make no run of this length in a table that keeps an eighth free.
  static constexpr U32 longRun = 1024;

  U32 buckets() const { return 1u << bits_; }
  U32 mask() const { return buckets() - 1; }
  // The high bits; through 64 bits, since a shift by 32 (one bucket) is not defined on 32.
  U32 home(U32 order) const { return static_cast<U32>((U64{order} << bits_) >> 32); }
  U32 displacement(U32 index) const { return (index - home(slots_[index].order())) & mask(); }

  // How many entries at the front belong to the end of the order.
  U32 wrapped() const {
    U32 index = 0;
    while (index <= mask() && slots_[index].used() && displacement(index) > index) ++index;
    return index;
  }
  U32 lastPosition() const { return wrapped() + mask() + 1; }

  U32 nextUsed(U32 position) const {
    U32 const buckets = mask() + 1;
    if (position < buckets) {
      for (; position < buckets; ++position)
        if (slots_[position].used()) return position;
    }
    // What ran over to the front follows without a gap.
    U32 const index = position - buckets;
    return index < buckets && slots_[index].used() && displacement(index) > index ? position : end();
  }

  // The first position, counted from the key's home, whose slot is free or does not precede the key. `passes`
  // says for a slot of the same home whether it precedes, from how its entry compares with the key.
  template <class Passes>
  U32 search(U32 order, Key const& key, Passes passes) const {
    U32 const start = home(order);
    auto const stops = [&](U32 distance) {
      U32 const index = (start + distance) & mask();
      Slot const& slot = slots_[index];
      if (!slot.used()) return true;
      U32 const theirs = displacement(index);
      if (theirs != distance) return theirs < distance;
      bool const sameOrder = slot.order() == order;
      bool const equal = sameOrder && slot.key() == key;
      bool const less = sameOrder ? !equal && slot.key() < key : slot.order() < order;
      return !passes(less, equal);
    };
    U32 low = 0;
    for (; low < 8 && low <= mask(); ++low)
      if (stops(low)) return start + low;
    // A long run: everything behind the first slot that stops does so too.
    U32 high = low;
    for (U32 step = 8; high <= mask() && !stops(high); step *= 2) {
      low = high + 1;
      high = low + std::min(step, buckets() - low);
    }
    while (low < high) {
      U32 const middle = low + (high - low) / 2;
      if (stops(middle))
        high = middle;
      else
        low = middle + 1;
    }
    return start + low;
  }

  // Where a slot belongs, as a position counted on from its home.
  U32 placeOf(Slot const& slot) const {
    return search(slot.order(), slot.key(), [](bool less, bool equal) { return less && !equal; });
  }

  // Puts a slot there and moves what follows; there is room.
  void place(Slot slot, U32 index) {
    low_ = std::min(low_, index);
    while (slots_[index].used()) {
      std::swap(slots_[index], slot);
      index = (index + 1) & mask();
    }
    slots_[index] = std::move(slot);
  }

  void resize(U32 bits) { rehash(new Slot[std::size_t{1} << bits], bits); }

  void rehash(Slot* slots, U32 bits) {
    HashTable old;
    old.swap(*this);
    slots_ = slots;
    size_ = old.size_;
    epoch_ = old.epoch_ + 1;
    bits_ = static_cast<U8>(bits);
    for (U32 i = old.first(); i != end(); i = old.next(i)) {
      Slot& slot = old.slots_[i & old.mask()];
      U32 const at = placeOf(slot) & mask();
      place(std::move(slot), at);
    }
  }

  // Memory follows the size down: at once when the table is empty, else at every power of two below an eighth,
  // unless what is left lies so close together that it would make a long run.
  void shrink() {
    if (bits_ <= smallBits || size_ > limit(bits_) / 8 || (size_ & (size_ - 1)) != 0) return;
    U32 const bits = size_ == 0 ? smallBits : bits_ - 1u;
    U64 next = 0;
    for (U32 i = first(); i != end(); i = nextUsed(i + 1)) {
      U64 const start = (U64{at(i).order()} << bits) >> 32;
      if (next > start + longRun) return;
      next = std::max(next, start) + 1;
    }
    if (Slot* const smaller = new (std::nothrow) Slot[std::size_t{1} << bits]) rehash(smaller, bits);
  }

  Slot* slots_ = nullptr;
  U32 size_ = 0;
  U32 epoch_ = 0;
  mutable U32 low_ =
      0;         // no slot before this is in use but those that ran over; spares a drain the empty front
  U8 bits_ = 0;  // log2 of the number of buckets
};

/// How a set of keys stores a key. The general form; Dova::IpGenAddr has a denser one.
template <class K>
class ValueSlot {
 public:
  using Key = K;

  ValueSlot() = default;
  explicit ValueSlot(Key const& key) : key_(key), order_(orderOf(key) | 1) {}

  bool used() const { return order_ != 0; }
  U32 order() const { return order_ & ~3u; }
  Key const& key() const { return key_; }
  static U32 orderOf(Key const& key) { return bitReverse(key.hash() & hashMask); }

 private:
  Key key_;
  U32 order_ = 0;
};

/// Names the slot of a key type; specialised where a type can do better.
template <class K>
struct SlotOf {
  using Type = ValueSlot<K>;
};

}  // namespace Vel
