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
// The array is two: the marks, 32 bits of hash and kind that say whether a place is used and where it is in the order, and
// what is stored. A search looks at eight marks at once and touches what is stored only where the mark is the right one.
//
// What is stored is said by a slot type: ValueSlot and Dova::AddressSlot for sets of keys, EntitySlot (Collection.h) for
// pointers to entities.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "runtime/vel/Hash.h"

namespace Vel {

/// A table of what `Slot` says. It offers
///   using Key; using Stored, which is cheap to move and default-constructs;
///   static U32 mark(Key const&): the bit-reversed hash, whose two low bits are zero, plus 1, 2 or 3
///   static key(U32 mark, Stored const&), for keys with one hash in the order of marks
///   static bool holds(Stored const&, Key const&), where the marks are equal
template <class Slot>
class HashTable {
 public:
  using Key = typename Slot::Key;
  using Stored = typename Slot::Stored;

  static constexpr U32 none = ~U32{0};

  HashTable() = default;
  HashTable(HashTable const&) = delete;
  HashTable& operator=(HashTable const&) = delete;
  ~HashTable() { release(marks_, end()); }

  void swap(HashTable& other) noexcept {
    std::swap(marks_, other.marks_);
    std::swap(size_, other.size_);
    std::swap(epoch_, other.epoch_);
    std::swap(low_, other.low_);
    std::swap(buckets_, other.buckets_);
    std::swap(tail_, other.tail_);
  }

  U32 size() const { return size_; }

  /// Changes whenever a position may have become invalid.
  U32 epoch() const { return epoch_; }

  /// The position of a key, or `none`.
  U32 find(Key const& key) const {
    U32 const mark = Slot::mark(key);
    for (U32 at = firstNotBefore(mark), last = end(); at < last && marks_[at] == mark; ++at)
      if (Slot::holds(stored()[at], key)) return at;
    return none;
  }

  /// Inserts a key with what is stored of it; false if it is there already. Throws std::bad_alloc, and then nothing has
  /// changed.
  bool insert(Key const& key, Stored value) {
    U32 const mark = Slot::mark(key);
    U32 at = placeOf(mark, key);
    if (at < end() && marks_[at] == mark && Slot::holds(stored()[at], key)) return false;
    if (isFull()) at = grown(larger(), mark, key);
    for (;;) {
      U32 const gap = gapAt(at);
      bool const sparse = size_ <= buckets_ / 8;
      if (gap == end()) {
        at = grown(sparse ? Shape{buckets_, 2 * tail_} : larger(), mark, key);
      } else if (at - home(mark) > longRun && !sparse) {
        at = grown(larger(), mark, key);
      } else {
        Stored* const all = stored();
        for (U32 to = gap; to > at; --to) moveTo(to, to - 1, all);
        marks_[at] = mark;
        all[at] = std::move(value);
        low_ = std::min(low_, at);
        break;
      }
    }
    ++size_;
    ++epoch_;
    return true;
  }

  /// Removes what is at a position, and hands it over.
  Stored remove(U32 at) {
    Stored* const all = stored();
    Stored removed = std::move(all[at]);
    U32 const last = end();
    U32 behind = at + 1;
    // Those that stand behind their home move up.
    for (; behind < last && marks_[behind] != 0 && home(marks_[behind]) < behind; ++behind)
      moveTo(behind - 1, behind, all);
    marks_[behind - 1] = 0;
    if constexpr (!isPlain) all[behind - 1] = Stored();
    --size_;
    ++epoch_;
    shrink();
    return removed;
  }

  /// A place in a walk through an unchanged table: a position, and which of those behind it up to the next multiple of
  /// eight are used. At `end()` the walk is over.
  struct Place {
    U32 position = 0;
    U32 used = 0;
  };

  Place first() const {
    Place const place = from(low_);
    low_ = place.position;
    return place;
  }

  Place next(Place place) const {
    U32 base = place.position / near * near;
    while (place.used == 0) {
      base += near;
      if (base >= end()) return {end(), 0};
      place.used = usedFrom(base);
    }
    place.position = base + static_cast<U32>(__builtin_ctz(place.used));
    place.used &= place.used - 1;
    return place;
  }

  /// The first place behind a key, which need not be there.
  Place after(Key const& key) const {
    U32 const mark = Slot::mark(key);
    U32 at = firstNotBefore(mark);
    for (U32 const last = end(); at < last && marks_[at] == mark && !(key < keyAt(at)); ++at) {
    }
    return from(at);
  }

  /// What stands at a position of the walk.
  Stored const& at(U32 position) const { return stored()[position]; }
  void atIs(U32 position, Stored value) { stored()[position] = std::move(value); }
  U32 markAt(U32 position) const { return marks_[position]; }
  decltype(auto) keyAt(U32 position) const { return Slot::key(marks_[position], stored()[position]); }

  /// The position behind the last. REQUIRES an unchanged table, as all positions do.
  U32 end() const { return buckets_ + tail_; }

  /// What is stored so many places behind a position; null where nothing is.
  Stored const* ahead(U32 position, U32 places) const {
    U32 const at = position + places;
    return at < end() && marks_[at] != 0 ? stored() + at : nullptr;
  }

  /// Asks for the memory in which a walk begins.
  void prefetch() const { __builtin_prefetch(marks_); }

 private:
  // Buckets are homes; the tail is for what stands behind the last of them. A small table is nothing but tail.
  struct Shape {
    U32 buckets, tail;
    U32 end() const { return buckets + tail; }
  };
  static constexpr U32 mostInSmall = 8;
  static constexpr U32 near = mostInSmall;  // places that a search looks at together
  static constexpr U32 longTail = 64;

  // Uniform hashes make no run of this length in a table that keeps an eighth free.
  static constexpr U32 longRun = 1024;

  // Nothing to construct and nothing to destroy.
  static constexpr bool isPlain = std::is_trivially_copyable_v<Stored>;

  static Shape shapeOf(U32 buckets) { return {buckets, std::min(longTail, mostInSmall + buckets / 8)}; }

  // In smaller steps once memory counts; moving everything over is a walk in order and costs little.
  Shape larger() const {
    constexpr U32 many = 1 << 17;
    if (buckets_ == 0 && tail_ < mostInSmall) return {0, tail_ == 0 ? 1 : 2 * tail_};
    if (buckets_ == 0) return shapeOf(2 * mostInSmall);
    return shapeOf(buckets_ < many ? 2 * buckets_ : buckets_ + buckets_ / 2);
  }

  bool isFull() const { return buckets_ == 0 ? size_ == tail_ : size_ >= buckets_ - buckets_ / 8; }

  // One piece of memory: the marks, and behind them what is stored.
  static std::size_t marksSize(U32 places) {
    return (places * sizeof(U32) + alignof(Stored) - 1) / alignof(Stored) * alignof(Stored);
  }
  static Stored* storedBehind(U32* marks, U32 places) {
    return reinterpret_cast<Stored*>(reinterpret_cast<char*>(marks) + marksSize(places));
  }
  Stored* stored() const { return storedBehind(marks_, end()); }

  static U32* allocated(U32 places) {
    return prepared(::operator new(marksSize(places) + places * sizeof(Stored)), places);
  }
  static U32* prepared(void* memory, U32 places) {
    U32* const marks = static_cast<U32*>(memory);
    std::memset(marks, 0, places * sizeof(U32));
    if constexpr (!isPlain) std::uninitialized_value_construct_n(storedBehind(marks, places), places);
    return marks;
  }
  static void release(U32* marks, U32 places) {
    if constexpr (!isPlain) std::destroy_n(storedBehind(marks, places), places);
    ::operator delete(marks);
  }

  void moveTo(U32 to, U32 at, Stored* all) {
    marks_[to] = marks_[at];
    all[to] = std::move(all[at]);
  }

  static U32 homeOf(U32 mark, U32 buckets) { return static_cast<U32>(U64{mark} * buckets >> 32); }
  U32 home(U32 mark) const { return homeOf(mark, buckets_); }

  // Whether a place is used and comes before a mark: an unused one, 0, becomes the largest number.
  bool isBefore(U32 at, U32 mark) const { return marks_[at] - 1 < mark - 1; }

  using Lanes [[gnu::vector_size(16)]] = U32;
  void load(U32 at, Lanes& a, Lanes& b) const {
    static_assert(near * sizeof(U32) == 2 * sizeof(Lanes));
    std::memcpy(&a, marks_ + at, sizeof a);
    std::memcpy(&b, marks_ + at + near / 2, sizeof b);
  }

  // Which of the `near` places from there on are used, as bits.
  U32 usedFrom(U32 at) const {
    if (at + near > end()) [[unlikely]] {
      U32 used = 0;
      for (U32 i = 0; at + i < end(); ++i) used |= U32{marks_[at + i] != 0} << i;
      return used;
    }
    Lanes a, b;
    load(at, a, b);
    Lanes const bits = (Lanes(a != 0) & Lanes{1, 2, 4, 8}) | (Lanes(b != 0) & Lanes{16, 32, 64, 128});
    return bits[0] | bits[1] | bits[2] | bits[3];
  }

  // The first used place from a position on.
  Place from(U32 position) const {
    if (position >= end()) return {end(), 0};
    U32 const base = position / near * near;
    return next({base, usedFrom(base) & (~U32{0} << position % near)});
  }

  // How many of `near` places come before a mark. They are the first of them, since the array is in order.
  U32 countBefore(U32 at, U32 mark) const {
    Lanes a, b;
    load(at, a, b);
    U32 const wanted = mark - 1;
    auto const sum = (a - 1 < wanted) + (b - 1 < wanted);  // -1 for each
    return static_cast<U32>(-(sum[0] + sum[1] + sum[2] + sum[3]));
  }

  // The first position from a mark's home on that is free or not before it. There is no loop that would end at a place
  // that nobody can predict, and hold up the next search until memory has answered.
  U32 firstNotBefore(U32 mark) const {
    U32 at = 0;
    if (buckets_ == 0) {
      while (at < size_ && isBefore(at, mark)) ++at;
      return at;
    }
    at = home(mark);
    U32 const before = countBefore(at, mark);  // the tail is no shorter
    at += before;
    if (before < near) [[likely]]
      return at;
    U32 const last = end();
    // A long run: everything behind the first that is not before is not before either.
    U32 high = at;
    for (U32 step = 8; high < last && isBefore(high, mark); step *= 2) {
      at = high + 1;
      high = at + std::min(step, last - at);
    }
    while (at < high) {
      U32 const middle = at + (high - at) / 2;
      if (isBefore(middle, mark))
        at = middle + 1;
      else
        high = middle;
    }
    return at;
  }

  // Where a key is, or belongs.
  U32 placeOf(U32 mark, Key const& key) const {
    U32 at = firstNotBefore(mark);
    for (U32 const last = end(); at < last && marks_[at] == mark && keyAt(at) < key;) ++at;
    return at;
  }

  // The first free position from there on; `end()` if there is none.
  U32 gapAt(U32 at) const {
    if (buckets_ == 0) return size_;
    U32 const last = end();
    while (at < last && marks_[at] != 0) ++at;
    return at;
  }

  U32 grown(Shape shape, U32 mark, Key const& key) {
    rehash(allocated(shape.end()), shape);
    return placeOf(mark, key);
  }

  // Everything goes over in order, so each comes behind the one before it or to its home. If the last ones find no
  // place, the tail was too short for them.
  void rehash(U32* marks, Shape shape) {
    U32 const last = end();
    for (;;) {
      U32 next = 0;
      for (Place i = first(); i.position < last; i = this->next(i))
        next = std::max(next, homeOf(marks_[i.position], shape.buckets)) + 1;
      if (next <= shape.end()) break;
      release(marks, shape.end());
      shape.tail = next - shape.buckets + 1;
      marks = allocated(shape.end());
    }
    Stored* const to = storedBehind(marks, shape.end());
    Stored* const all = stored();
    U32 next = 0;
    for (Place i = first(); i.position < last; i = this->next(i)) {
      next = std::max(next, homeOf(marks_[i.position], shape.buckets));
      marks[next] = marks_[i.position];
      to[next] = std::move(all[i.position]);
      ++next;
    }
    release(marks_, end());
    marks_ = marks;
    ++epoch_;
    buckets_ = shape.buckets;
    tail_ = shape.tail;
    low_ = 0;
  }

  // Memory follows the size down: when the table is nearly empty, else at every power of two below an eighth, unless
  // what is left lies so close together that it would make a long run.
  void shrink() {
    if (buckets_ == 0 || size_ > buckets_ / 10 || (size_ & (size_ - 1)) != 0) return;
    Shape const shape = size_ <= mostInSmall / 2 ? Shape{0, mostInSmall} : shapeOf(4 * size_);
    if (shape.buckets >= buckets_) return;
    U64 next = 0;
    for (Place i = first(); i.position < end() && shape.buckets != 0; i = this->next(i)) {
      U64 const start = homeOf(marks_[i.position], shape.buckets);
      if (next > start + longRun || next >= shape.end()) return;
      next = std::max(next, start) + 1;
    }
    std::size_t const size = marksSize(shape.end()) + shape.end() * sizeof(Stored);
    if (void* const memory = ::operator new(size, std::nothrow)) rehash(prepared(memory, shape.end()), shape);
  }

  U32* marks_ = nullptr;  // what is stored lies behind them
  U32 size_ = 0;
  U32 epoch_ = 0;
  U32 buckets_ = 0;
  U32 tail_ = 0;
  mutable U32 low_ = 0;  // no place before this is in use; spares a drain the empty front
};

/// How a set of keys stores a key. The general form; Dova::IpGenAddr has a denser one.
template <class K>
struct ValueSlot {
  using Key = K;
  using Stored = K;

  static U32 mark(Key const& key) { return orderOf(key) | 1; }
  static Stored const& stored(Key const& key) { return key; }
  static Key const& key(U32, Stored const& stored) { return stored; }
  static bool holds(Stored const& stored, Key const& key) { return stored == key; }
};

/// Names the slot of a key type; specialised where a type can do better.
template <class K>
struct SlotOf {
  using Type = ValueSlot<K>;
};

}  // namespace Vel
