// SPDX-License-Identifier: Apache-2.0
// The table behind all hashed collections. Not part of the library's interface.
//
// An array in one order: ascending bit-reversed hash, then key. Up to 8 entries lie side by side. A larger
// table is addressed openly: the home of an entry is where its reversed hash falls if all of them are spread
// evenly over the buckets, an entry whose home is taken is behind it, and the array continues for a little
// behind the last bucket. So it is sorted all the same, with gaps. That gives three things at once:
//
//   - a walk is a walk over an array, in an order that depends on the keys alone, never on the table's size;
//   - growth keeps the order, so it does not disturb a walk;
//   - a walk can be resumed behind any key, whether or not it is still there. Iterators rely on it to survive
//     every change: while the table is unchanged they step, otherwise they search for their successor.
//
// Most tables of a router hold one entry: the source of a group. The first entry therefore lies inside the
// table, needs no memory of its own, and is compared instead of hashed.
//
// The price of that order: keys that arrive in it, as when one collection is copied into another, gather at
// one end of a table that is still small. So positions in a long run are found by doubling steps, a table
// whose runs become too long grows early, and one is made smaller only if that leaves no long run behind.
//
// The array is two: the marks, 32 bits of hash and kind that say whether a place is used and where it is in
// the order, and what is stored. A search looks at eight marks at once and touches what is stored only where
// the mark is the right one.
//
// What is stored is said by a slot type: ValueSlot and Dova::AddressSlot for sets of keys, EntitySlot
// (Collection.h) for pointers to entities.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "runtime/vel/Hash.h"

namespace Vel {

/// A table of what `Slot` says. It offers
///   using Key; using Stored, which is cheap to move and default-constructs;
///   static U32 tag(Key const&): 0, 1 or 2, what tells keys apart that are stored alike
///   static U32 mark(Key const&): the bit-reversed hash, whose two low bits are zero, plus the tag
///   static key(U32 mark, Stored const&), for keys with one hash in the order of marks; reads the tag alone
///   static bool holds(Stored const&, Key const&), where the tags are equal
template <class Slot>
class HashTable {
 public:
  using Key = typename Slot::Key;
  using Stored = typename Slot::Stored;

  static constexpr U32 none = ~U32{0};

  HashTable() {}
  HashTable(HashTable const&) = delete;
  HashTable& operator=(HashTable const&) = delete;
  ~HashTable() {
    if (!isInside())
      release(many_.marks, shape());
    else if (size_ != 0)
      std::destroy_at(lone());
  }

  void swap(HashTable& other) noexcept {
    static_assert(isPlain && sizeof(Inside) <= sizeof(Many), "the one inside is copied with the rest");
    unsigned char bytes[sizeof(Many)];
    std::memcpy(bytes, &many_, sizeof bytes);
    std::memcpy(static_cast<void*>(&many_), &other.many_, sizeof bytes);
    std::memcpy(static_cast<void*>(&other.many_), bytes, sizeof bytes);
    std::swap(size_, other.size_);
    std::swap(epoch_, other.epoch_);
  }

  U32 size() const { return size_; }

  /// Changes whenever a position may have become invalid.
  U32 epoch() const { return epoch_; }

  /// The position of a key, or `none`.
  U32 find(Key const& key) const {
    if (isInside()) return size_ != 0 && isLone(key) ? 0 : none;
    return found(Slot::mark(key), key);
  }

  /// Where a key is, or belongs, as long as the table does not change.
  struct Where {
    U32 at;
    U32 mark;  // in a table that holds at most one inside itself: the tag alone
    bool found;
  };
  Where where(Key const& key) const {
    if (isInside()) return {0, Slot::tag(key), size_ != 0 && isLone(key)};
    U32 const mark = Slot::mark(key);
    U32 const at = placeOf(mark, key);
    return {at, mark, holds(at, mark, key)};
  }

  /// Inserts a key with what is stored of it where it belongs. REQUIRES: the table has not changed since it
  /// was asked where, and the key was not found. Throws std::bad_alloc, and then nothing has changed.
  void insert(Where where, Key const& key, Stored value) {
    if (isInside()) {
      if (size_ == 0) {
        std::construct_at(lone(), std::move(value));
        inside_.tag = where.mark;
        size_ = 1;
        ++epoch_;
        return;
      }
      where.mark = Slot::mark(key);
      where.at = grown(larger(), where.mark, key);
    }
    U32 const mark = where.mark;
    U32 at = where.at;
    if (isFull()) at = grown(larger(), mark, key);
    for (;;) {
      U32 const gap = gapAt(at);
      bool const sparse = size_ <= many_.buckets / 8;
      if (gap == many_.places) {
        at = grown(sparse ? Shape{many_.buckets, 2 * shape().tail} : larger(), mark, key);
      } else if (at - home(mark) > longRun && !sparse) {
        at = grown(larger(), mark, key);
      } else {
        Stored* const all = stored();
        for (U32 to = gap; to > at; --to) moveTo(to, to - 1, all);
        many_.marks[at] = compared(mark);
        all[at] = std::move(value);
        many_.low = std::min(many_.low, at);
        break;
      }
    }
    ++size_;
    ++epoch_;
  }

  /// The same in one; false if the key is there already.
  bool insert(Key const& key, Stored value) {
    Where const where = this->where(key);
    if (!where.found) insert(where, key, std::move(value));
    return !where.found;
  }

  /// Removes what is at a position, and hands it over.
  Stored remove(U32 at) {
    Stored* const all = stored();
    Stored removed = std::move(all[at]);
    ++epoch_;
    --size_;
    if (isInside()) {
      std::destroy_at(all);
      return removed;
    }
    // Those that stand behind their home move up.
    U32 behind = at + 1;
    for (; behind < many_.places && isDisplaced(behind); ++behind) moveTo(behind - 1, behind, all);
    many_.marks[behind - 1] = unused;
    if constexpr (!isPlain) all[behind - 1] = Stored();
    if (size_ <= many_.buckets / 10 && (size_ & (size_ - 1)) == 0) [[unlikely]]
      shrink();
    return removed;
  }

  /// A place in a walk through an unchanged table: a position, and which of those behind it up to the next
  /// multiple of eight are used. At `end()` the walk is over.
  struct Place {
    U32 position = 0;
    U32 used = 0;
  };

  Place first() const {
    if (isInside()) return {size_ != 0 ? 0 : end()};
    Place const place = from(many_.low);
    if (place.position != end()) many_.low = place.position;
    return place;
  }

  Place next(Place place) const {
    U32 base = place.position / near * near;
    while (place.used == 0) {
      base += near;
      if (base >= many_.places) return {end()};
      place.used = usedFrom(base);
    }
    place.position = base + static_cast<U32>(__builtin_ctz(place.used));
    place.used &= place.used - 1;
    return place;
  }

  /// The first place behind a key, which need not be there.
  Place after(Key const& key) const {
    U32 const mark = Slot::mark(key);
    if (isInside()) {
      bool const isBehind = size_ != 0 && (mark < markAt(0) || (mark == markAt(0) && key < keyAt(0)));
      return {isBehind ? 0 : end()};
    }
    U32 at = firstNotBefore(mark);
    for (; holdsMark(at, mark) && !(key < keyAt(at)); ++at) {
    }
    return from(at);
  }

  /// What is at a position of the walk.
  Stored const& at(U32 position) const { return stored()[position]; }
  void atIs(U32 position, Stored value) { stored()[position] = std::move(value); }
  U32 markAt(U32 position) const {
    return isInside() ? Slot::mark(keyAt(position)) : compared(many_.marks[position]);
  }
  /// A number with the tag of what is at a position, as `Slot::key()` takes it.
  U32 tagAt(U32 position) const { return isInside() ? inside_.tag : compared(many_.marks[position]); }
  decltype(auto) keyAt(U32 position) const { return Slot::key(tagAt(position), stored()[position]); }

  /// The position of a walk that is over.
  static constexpr U32 end() { return none; }

  /// What is at all positions, for a caller that looks at several.
  Stored const* all() const { return stored(); }

  /// Whether something is at any position in memory of the table's own, beyond the last one too.
  bool isUsed(U32 position) const { return position < many_.places && many_.marks[position] != unused; }

  /// Asks for the memory in which a walk begins.
  void prefetch() const {
    if (!isInside()) __builtin_prefetch(many_.marks);
  }

 private:
  // A mark as it is compared: signed, for which processors have an instruction. Tag 3 is no key's, so the
  // largest number is no key's mark: places that are not used come behind all that are.
  using Compared = std::int32_t;
  static constexpr U32 sign = 0x80000000;
  static constexpr Compared unused = 0x7fffffff;
  static Compared compared(U32 mark) { return static_cast<Compared>(mark ^ sign); }
  static U32 compared(Compared mark) { return static_cast<U32>(mark) ^ sign; }

  // Buckets are homes; the tail is for what is behind the last of them. A small table is nothing but
  // tail.
  struct Shape {
    U32 buckets, tail;
    U32 places() const { return buckets + tail; }
    // A search looks at `near` of them wherever it begins.
    U32 marks() const { return buckets == 0 ? tail : places() + near; }
  };
  static constexpr U32 mostInSmall = 8;
  static constexpr U32 near = mostInSmall;  // places that a search looks at together
  static constexpr U32 longTail = 64;

  // Uniform hashes make no run of this length in a table that keeps an eighth free.
  static constexpr U32 longRun = 1024;

  // Nothing to construct and nothing to destroy.
  static constexpr bool isPlain = std::is_trivially_copyable_v<Stored>;

  static Shape shapeOf(U32 buckets) { return {buckets, std::min(longTail, mostInSmall + buckets / 8)}; }

  Shape shape() const {
    return isInside() ? Shape{0, 0} : Shape{many_.buckets, many_.places - many_.buckets};
  }

  // Doubling is what inserting costs least with. Where the marks weigh as much as what is stored, it grows in
  // smaller steps once memory counts; moving everything over is a walk in order.
  Shape larger() const {
    constexpr U32 many = sizeof(Stored) <= 8 ? 1u << 17 : 1u << 30;
    auto const [buckets, tail] = shape();
    if (buckets == 0 && tail < mostInSmall) return {0, tail == 0 ? 2 : 2 * tail};
    if (buckets == 0) return shapeOf(2 * mostInSmall);
    return shapeOf(buckets < many ? 2 * buckets : buckets + buckets / 2);
  }

  // With more than an eighth free, less would move aside for what comes last, but a table that has just
  // doubled would take more than 48 bytes an address.
  bool isFull() const {
    return many_.buckets == 0 ? size_ == many_.places : size_ >= many_.buckets - many_.buckets / 8;
  }

  // One piece of memory: the marks, and behind them what is stored.
  static std::size_t marksSize(Shape shape) {
    return (shape.marks() * sizeof(Compared) + alignof(Stored) - 1) / alignof(Stored) * alignof(Stored);
  }
  static std::size_t bytes(Shape shape) { return marksSize(shape) + shape.places() * sizeof(Stored); }
  static Stored* storedBehind(Compared* marks, Shape shape) {
    return reinterpret_cast<Stored*>(reinterpret_cast<char*>(marks) + marksSize(shape));
  }
  Stored* stored() const { return isInside() ? lone() : storedBehind(many_.marks, shape()); }

  static Compared* allocated(Shape shape) { return prepared(::operator new(bytes(shape)), shape); }
  static Compared* prepared(void* memory, Shape shape) {
    Compared* const marks = static_cast<Compared*>(memory);
    std::fill_n(marks, shape.marks(), unused);
    if constexpr (!isPlain) std::uninitialized_value_construct_n(storedBehind(marks, shape), shape.places());
    return marks;
  }
  static void release(Compared* marks, Shape shape) {
    if constexpr (!isPlain) std::destroy_n(storedBehind(marks, shape), shape.places());
    ::operator delete(marks);
  }

  void moveTo(U32 to, U32 at, Stored* all) {
    many_.marks[to] = many_.marks[at];
    all[to] = std::move(all[at]);
  }

  static U32 homeOf(U32 mark, U32 buckets) { return static_cast<U32>(U64{mark} * buckets >> 32); }
  U32 home(U32 mark) const { return homeOf(mark, many_.buckets); }

  // Whether a place is used, by one whose home is before it.
  bool isDisplaced(U32 at) const { return many_.marks[at] != unused && home(compared(many_.marks[at])) < at; }

  using Lanes [[gnu::vector_size(16)]] = Compared;
  void load(U32 at, Lanes& a, Lanes& b) const {
    static_assert(near * sizeof(Compared) == 2 * sizeof(Lanes));
    std::memcpy(&a, many_.marks + at, sizeof a);
    std::memcpy(&b, many_.marks + at + near / 2, sizeof b);
  }

  // A bit for each of `near` results of a comparison.
  static U32 bits(Lanes a, Lanes b) {
#ifdef __SSE2__
    __extension__ using Floats [[gnu::vector_size(16)]] = float;
    return static_cast<U32>(__builtin_ia32_movmskps(reinterpret_cast<Floats>(a)) |
                            __builtin_ia32_movmskps(reinterpret_cast<Floats>(b)) << near / 2);
#else
    Lanes const bits = (a & Lanes{1, 2, 4, 8}) | (b & Lanes{16, 32, 64, 128});
    return static_cast<U32>(bits[0] | bits[1] | bits[2] | bits[3]);
#endif
  }

  // Which of the `near` places from there on are used, as bits.
  U32 usedFrom(U32 at) const {
    if (many_.buckets == 0) return ((1u << size_) - 1) >> at;
    Lanes a, b;
    load(at, a, b);
    return bits(a != unused, b != unused);
  }

  // The first used place from a position on.
  Place from(U32 position) const {
    if (position >= many_.places) return {end()};
    U32 const base = position / near * near;
    return next({base, usedFrom(base) & (~U32{0} << position % near)});
  }

  // The first position from a mark's home on that is free or not before it. There is no loop that would end
  // at a place that cannot be predicted, and hold up the next search until memory has answered.
  U32 firstNotBefore(U32 mark) const {
    U32 at = 0;
    Compared const wanted = compared(mark);
    if (many_.buckets == 0) {
      while (at < size_ && many_.marks[at] < wanted) ++at;
      return at;
    }
    at = home(mark);
    Lanes a, b;
    load(at, a, b);
    U32 const notBefore = bits(a >= wanted, b >= wanted);
    if (notBefore != 0) [[likely]]
      return at + static_cast<U32>(__builtin_ctz(notBefore));
    return lastOfRun(at + near, wanted);
  }

  // A long run: everything behind the first that is not before is not before either.
  [[gnu::noinline]] U32 lastOfRun(U32 at, Compared wanted) const {
    U32 const last = many_.places;
    U32 high = at;
    for (U32 step = 8; high < last && many_.marks[high] < wanted; step *= 2) {
      at = high + 1;
      high = at + std::min(step, last - at);
    }
    while (at < high) {
      U32 const middle = at + (high - at) / 2;
      if (many_.marks[middle] < wanted)
        at = middle + 1;
      else
        high = middle;
    }
    return at;
  }

  bool holdsMark(U32 at, U32 mark) const { return at < many_.places && many_.marks[at] == compared(mark); }
  bool holds(U32 at, U32 mark, Key const& key) const {
    return holdsMark(at, mark) && Slot::holds(stored()[at], key);
  }

  // The position of a key in memory of its own, or `none`.
  U32 found(U32 mark, Key const& key) const {
    U32 at;
    if (many_.buckets != 0) [[likely]] {
      // Nearly always one place has the mark, and it is the key's.
      at = home(mark);
      Compared const wanted = compared(mark);
      Lanes a, b;
      load(at, a, b);
      if (U32 const same = bits(a == wanted, b == wanted)) [[likely]] {
        U32 const first = at + static_cast<U32>(__builtin_ctz(same));
        if (Slot::holds(stored()[first], key)) [[likely]]
          return first;
      } else if (bits(a > wanted, b > wanted) != 0) {
        return none;
      }
    }
    at = firstNotBefore(mark);
    for (; holdsMark(at, mark); ++at)
      if (Slot::holds(stored()[at], key)) return at;
    return none;
  }

  // Where a key is, or belongs.
  U32 placeOf(U32 mark, Key const& key) const {
    U32 at = firstNotBefore(mark);
    while (holdsMark(at, mark) && keyAt(at) < key) ++at;
    return at;
  }

  // The first free position from there on; that behind the last, where marks are never used, if there is
  // none.
  U32 gapAt(U32 at) const {
    if (many_.buckets == 0) return size_;
    for (; at < many_.places; at += near) {
      Lanes a, b;
      load(at, a, b);
      if (U32 const free = bits(a == unused, b == unused)) return at + static_cast<U32>(__builtin_ctz(free));
    }
    return many_.places;
  }

  U32 grown(Shape shape, U32 mark, Key const& key) {
    rehash(allocated(shape), shape);
    return placeOf(mark, key);
  }

  // Everything is moved in order, so each comes behind the one before it or to its home. If the last ones
  // find no place, the tail was too short for them.
  void rehash(Compared* marks, Shape shape) {
    Stored* const all = stored();
    if (isInside()) {
      if (size_ != 0) {
        U32 const mark = markAt(0), to = homeOf(mark, shape.buckets);
        marks[to] = compared(mark);
        storedBehind(marks, shape)[to] = std::move(*all);
        std::destroy_at(all);
      }
    } else {
      while (U32 const needed = spread(marks, shape, all)) {
        release(marks, shape);
        shape.tail = needed - shape.buckets + 1;
        marks = allocated(shape);
      }
      release(many_.marks, this->shape());
    }
    many_ = {shape.places(), shape.buckets, marks, 0};
    ++epoch_;
  }

  // Copies what is in memory of its own to where it belongs in other memory. Zero, or how many places it
  // needs if there are not so many; then nothing has left where it was.
  U32 spread(Compared* marks, Shape shape, Stored* all) {
    U32 next = 0;
    if constexpr (!isPlain) {
      for (Place i = first(); i.position != end(); i = this->next(i))
        next = std::max(next, homeOf(compared(many_.marks[i.position]), shape.buckets)) + 1;
      if (next > shape.places()) return next;
      next = 0;
    }
    U32 const last = shape.places();
    Stored* const to = storedBehind(marks, shape);
    for (Place i = first(); i.position != end(); i = this->next(i)) {
      Compared const mark = many_.marks[i.position];
      next = std::max(next, homeOf(compared(mark), shape.buckets));
      if (next < last) [[likely]] {
        marks[next] = mark;
        to[next] = std::move(all[i.position]);
      }
      ++next;
    }
    return next > last ? next : 0;
  }

  // Memory follows the size down: when the table is nearly empty, else at every power of two below a tenth,
  // unless what is left lies so close together that it would make a long run.
  [[gnu::noinline]] void shrink() {
    Shape const shape = size_ <= mostInSmall / 2 ? Shape{0, mostInSmall} : shapeOf(4 * size_);
    if (shape.buckets >= many_.buckets) return;
    U64 next = 0;
    for (Place i = first(); i.position != end() && shape.buckets != 0; i = this->next(i)) {
      U64 const start = homeOf(compared(many_.marks[i.position]), shape.buckets);
      if (next > start + longRun || next >= shape.places()) return;
      next = std::max(next, start) + 1;
    }
    if (void* const memory = ::operator new(bytes(shape), std::nothrow))
      rehash(prepared(memory, shape), shape);
  }

  // One that is alone lies in the table itself, and its hash is not asked for.
  struct Inside {
    U32 places;
    U32 tag;
    alignas(Stored) unsigned char stored[sizeof(Stored)];
  };
  struct Many {
    U32 places;  // 0: nothing has been allocated
    U32 buckets;
    Compared* marks;  // what is stored lies behind them
    mutable U32 low;  // no place before this is in use; spares a drain the empty front
  };
  bool isInside() const { return many_.places == 0; }
  Stored* lone() const { return reinterpret_cast<Stored*>(const_cast<unsigned char*>(inside_.stored)); }
  bool isLone(Key const& key) const { return inside_.tag == Slot::tag(key) && Slot::holds(*lone(), key); }

  union {
    Many many_ = {};
    Inside inside_;
  };
  U32 size_ = 0;
  U32 epoch_ = 0;
};

/// How a set of keys stores a key. The general form; Dova::IpGenAddr has a denser one.
template <class K>
struct ValueSlot {
  using Key = K;
  using Stored = K;

  static U32 tag(Key const&) { return 0; }
  static U32 mark(Key const& key) { return orderOf(key); }
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
