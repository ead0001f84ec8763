// The table behind all hashed collections.
//
// An array in one order: ascending bit-reversed hash, then key. Up to 8 entries lie side by side. A larger table is
// addressed openly: the home of an entry is where its reversed hash falls if all of them are spread evenly over the
// buckets, an entry whose home is taken stands behind it, and the array goes on for a little behind the last bucket. So
// it is sorted all the same, with gaps. That gives three things at once:
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
///   using Key; key() const;
///   U32 mark() const: its bit-reversed hash, whose two low bits are zero, plus 1, 2 or 3; 0 if it is unused
/// and for searching `static U32 orderOf(Key const&)`, which is the bit-reversed hash of a key.
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
    std::swap(buckets_, other.buckets_);
    std::swap(tail_, other.tail_);
  }

  U32 size() const { return size_; }

  /// Changes whenever a position may have become invalid.
  U32 epoch() const { return epoch_; }

  /// The slot of a key, or null. Valid until the next change.
  Slot* find(Key const& key) const {
    U32 const order = Slot::orderOf(key);
    for (U32 at = firstNotBefore(order), last = end(); at < last && hasOrder(at, order); ++at) {
      if (!(slots_[at].key() < key)) return slots_[at].key() == key ? &slots_[at] : nullptr;
    }
    return nullptr;
  }

  /// Inserts a slot whose key is absent. Throws std::bad_alloc, and then nothing has changed.
  void insert(Slot slot) {
    U32 const order = slot.mark() & ~3u;
    if (isFull()) rehash(larger());
    for (;;) {
      U32 const at = placeOf(order, slot.key());
      U32 const gap = gapAt(at);
      bool const sparse = size_ <= buckets_ / 8;
      if (gap == end())
        rehash(sparse ? Shape{buckets_, 2 * tail_} : larger());
      else if (at - home(order) > longRun && !sparse)
        rehash(larger());
      else {
        std::move_backward(slots_ + at, slots_ + gap, slots_ + gap + 1);
        slots_[at] = std::move(slot);
        low_ = std::min(low_, at);
        break;
      }
    }
    ++size_;
    ++epoch_;
  }

  /// Removes a slot that `find` gave, and hands it over.
  Slot remove(Slot* slot) {
    Slot removed = std::move(*slot);
    Slot* const last = slots_ + end();
    Slot* behind = slot + 1;
    // Those that stand behind their home move up.
    while (behind < last && behind->mark() != 0 && slots_ + home(orderIn(*behind)) < behind) ++behind;
    std::move(slot + 1, behind, slot);
    *(behind - 1) = Slot();
    --size_;
    ++epoch_;
    shrink();
    return removed;
  }

  /// A position in the walk. The first one; `end()` if there is none.
  U32 first() const { return low_ = nextUsed(low_); }

  /// The position behind `position` in an unchanged table.
  U32 next(U32 position) const { return nextUsed(position + 1); }

  /// The first position behind a key, which need not be there.
  U32 after(U32 order, Key const& key) const {
    U32 at = firstNotBefore(order);
    for (U32 const last = end(); at < last && hasOrder(at, order) && !(key < slots_[at].key());) ++at;
    return nextUsed(at);
  }

  Slot const& at(U32 position) const { return slots_[position]; }

  /// The position behind the last. REQUIRES an unchanged table, as all positions do.
  U32 end() const { return buckets_ + tail_; }

  /// The slot so many places behind a position, used or not; null behind the end.
  Slot const* ahead(U32 position, U32 places) const {
    return position + places < end() ? slots_ + position + places : nullptr;
  }

  /// Asks for the memory in which a walk begins.
  void prefetch() const { __builtin_prefetch(slots_); }

 private:
  // Buckets are homes; the tail is for what stands behind the last of them. A small table is nothing but tail.
  struct Shape {
    U32 buckets, tail;
  };
  static constexpr U32 mostInSmall = 8;
  static constexpr U32 longTail = 64;

  // Uniform hashes make no run of this length in a table that keeps an eighth free.
  static constexpr U32 longRun = 1024;

  static Shape shapeOf(U32 buckets) { return {buckets, std::min(longTail, mostInSmall + buckets / 8)}; }

  // In small steps once memory counts; moving everything over is a walk in order and costs little.
  Shape larger() const {
    constexpr U32 many = 4096;
    if (buckets_ == 0 && tail_ < mostInSmall) return {0, tail_ == 0 ? 1 : 2 * tail_};
    if (buckets_ == 0) return shapeOf(2 * mostInSmall);
    return shapeOf(buckets_ < many ? 2 * buckets_ : buckets_ + buckets_ / 4);
  }

  bool isFull() const { return buckets_ == 0 ? size_ == tail_ : size_ >= buckets_ - buckets_ / 8; }

  static U32 orderIn(Slot const& slot) { return slot.mark() & ~3u; }
  U32 orderOf(U32 at) const { return orderIn(slots_[at]); }
  U32 home(U32 order) const { return static_cast<U32>(U64{order} * buckets_ >> 32); }

  // Whether a slot is used and has this order: a mark is 1, 2 or 3 above it, and 0 is none of those.
  bool hasOrder(U32 at, U32 order) const { return slots_[at].mark() - 1 - order < 3; }

  // Whether a slot is used and its order less: a mark of 0 becomes the largest number.
  bool isBefore(U32 at, U32 order) const { return slots_[at].mark() - 1 < order; }

  U32 nextUsed(U32 position) const {
    U32 const last = end();
    while (position < last && slots_[position].mark() == 0) ++position;
    return position;
  }

  // The first position from the order's home on that is free or has no lesser order.
  U32 firstNotBefore(U32 order) const {
    U32 const last = end();
    U32 at = home(order);
    for (U32 const near = std::min(last, at + 8); at < near; ++at)
      if (!isBefore(at, order)) return at;
    if (at == last) return last;
    // A long run: everything behind the first that is not before is not before either.
    U32 high = at;
    for (U32 step = 8; high < last && isBefore(high, order); step *= 2) {
      at = high + 1;
      high = at + std::min(step, last - at);
    }
    while (at < high) {
      U32 const middle = at + (high - at) / 2;
      if (isBefore(middle, order))
        at = middle + 1;
      else
        high = middle;
    }
    return at;
  }

  // Where a key belongs that is not there.
  U32 placeOf(U32 order, Key const& key) const {
    U32 at = firstNotBefore(order);
    for (U32 const last = end(); at < last && hasOrder(at, order) && slots_[at].key() < key;) ++at;
    return at;
  }

  // The first free position from there on; `end()` if there is none.
  U32 gapAt(U32 at) const {
    if (buckets_ == 0) return size_;
    U32 const last = end();
    while (at < last && slots_[at].mark() != 0) ++at;
    return at;
  }

  void rehash(Shape shape) { rehash(new Slot[std::size_t{shape.buckets} + shape.tail], shape); }

  // Everything goes over in order, so each comes behind the one before it or to its home. If the last ones find no
  // place, the tail was too short for them.
  void rehash(Slot* slots, Shape shape) {
    U32 needed = 0;
    for (;;) {
      needed = 0;
      U32 next = 0;
      for (U32 from = first(), last = end(); from < last; from = nextUsed(from + 1)) {
        U32 const to = std::max(next, static_cast<U32>(U64{orderOf(from)} * shape.buckets >> 32));
        next = to + 1;
      }
      needed = next;
      if (needed <= shape.buckets + shape.tail) break;
      delete[] slots;
      shape.tail = needed - shape.buckets + 1;
      slots = new Slot[std::size_t{shape.buckets} + shape.tail];
    }
    HashTable old;
    old.swap(*this);
    slots_ = slots;
    size_ = old.size_;
    epoch_ = old.epoch_ + 1;
    buckets_ = shape.buckets;
    tail_ = shape.tail;
    U32 next = 0;
    for (U32 from = old.first(), last = old.end(); from < last; from = old.nextUsed(from + 1)) {
      U32 const to = std::max(next, home(old.orderOf(from)));
      slots_[to] = std::move(old.slots_[from]);
      next = to + 1;
    }
  }

  // Memory follows the size down: when the table is nearly empty, else at every power of two below an eighth, unless
  // what is left lies so close together that it would make a long run.
  void shrink() {
    if (buckets_ == 0 || size_ > buckets_ / 10 || (size_ & (size_ - 1)) != 0) return;
    Shape const shape = size_ <= mostInSmall / 2 ? Shape{0, mostInSmall} : shapeOf(4 * size_);
    if (shape.buckets >= buckets_) return;
    U64 next = 0;
    for (U32 at = first(), last = end(); at < last && shape.buckets != 0; at = nextUsed(at + 1)) {
      U64 const start = U64{orderOf(at)} * shape.buckets >> 32;
      if (next > start + longRun || next >= shape.buckets + shape.tail) return;
      next = std::max(next, start) + 1;
    }
    if (Slot* const smaller = new (std::nothrow) Slot[std::size_t{shape.buckets} + shape.tail])
      rehash(smaller, shape);
  }

  Slot* slots_ = nullptr;
  U32 size_ = 0;
  U32 epoch_ = 0;
  U32 buckets_ = 0;
  U32 tail_ = 0;
  mutable U32 low_ = 0;  // no slot before this is in use; spares a drain the empty front
};

/// How a set of keys stores a key. The general form; Dova::IpGenAddr has a denser one.
template <class K>
class ValueSlot {
 public:
  using Key = K;

  ValueSlot() = default;
  explicit ValueSlot(Key const& key) : key_(key), mark_(orderOf(key) | 1) {}

  U32 mark() const { return mark_; }
  Key const& key() const { return key_; }
  static U32 orderOf(Key const& key) { return bitReverse(key.hash() & hashMask); }

 private:
  Key key_;
  U32 mark_ = 0;
};

/// Names the slot of a key type; specialised where a type can do better.
template <class K>
struct SlotOf {
  using Type = ValueSlot<K>;
};

}  // namespace Vel
