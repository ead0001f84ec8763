// SPDX-License-Identifier: Apache-2.0
// The tables of the plain engine (Engine.h): groups by address, and the entries of each.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#include "pim/entry/EntryKind.h"
#include "runtime/dova/IpGenAddr.h"

namespace Plain {

using Dova::IpGenAddr;
using Routing::Pim::EntryKind;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// One entry of a group. The address is the source, or the RP of a (*,G) entry.
struct Entry {
  IpGenAddr address;
  EntryKind kind;
  bool taken = false;  ///< It is in the message that is being made, or is left out of it for good.
};
static_assert(std::is_trivially_copyable_v<Entry>);

/// The order in which the entries of a group are sent: (*,G) first, and next to it the (S,G,rpt) prunes that
/// a (*,G) join takes along.
constexpr U8 rankOf(EntryKind kind) {
  constexpr U8 ranks[] = {2, 4, 0, 0, 3, 1};
  return ranks[Routing::Pim::indexOf(kind)];
}
constexpr U8 wildcardRank = 0, rptPruneRank = 1;

/// The entries of a group, sorted by rank and address. One lies inside, more are on the heap. Finding is
/// O(log n), adding and removing O(n).
class Entries {
 public:
  Entries() = default;
  Entries(Entries&& other) noexcept { swap(other); }
  Entries& operator=(Entries&& other) noexcept {
    swap(other);
    return *this;
  }
  ~Entries() {
    if (capacity_ > 1) delete[] many_;
  }

  U32 size() const { return size_; }
  Entry* begin() { return capacity_ > 1 ? many_ : &one_; }
  Entry* end() { return begin() + size_; }

  /// Where an entry is or would be. There is at most one (*,G) entry, so its address does not matter.
  U32 placeOf(EntryKind kind, IpGenAddr const& address) {
    U8 const rank = rankOf(kind);
    auto const isBefore = [&](Entry const& entry) {
      U8 const other = rankOf(entry.kind);
      return other != rank ? other < rank : rank != wildcardRank && entry.address < address;
    };
    if (size_ <= 1) return size_ == 1 && isBefore(*begin());
    return static_cast<U32>(std::partition_point(begin(), end(), isBefore) - begin());
  }
  bool holds(U32 place, EntryKind kind, IpGenAddr const& address) {
    return place < size_ && begin()[place].kind == kind && begin()[place].address == address;
  }
  bool contains(EntryKind kind, IpGenAddr const& address) {
    return holds(placeOf(kind, address), kind, address);
  }

  void insert(U32 place, Entry const& entry) {
    if (size_ == capacity_) grow();
    Entry* const at = begin() + place;
    std::memmove(static_cast<void*>(at + 1), at, (size_ - place) * sizeof(Entry));
    *at = entry;
    ++size_;
  }
  void erase(U32 place) {
    Entry* const at = begin() + place;
    std::memmove(static_cast<void*>(at), at + 1, (--size_ - place) * sizeof(Entry));
  }
  void eraseTaken() {
    Entry* const kept = std::remove_if(begin(), end(), [](Entry const& entry) { return entry.taken; });
    size_ = static_cast<U32>(kept - begin());
  }

 private:
  void swap(Entries& other) noexcept {
    std::array<char, sizeof(Entries)> bytes;
    std::memcpy(bytes.data(), static_cast<void*>(this), sizeof bytes);
    std::memcpy(static_cast<void*>(this), static_cast<void*>(&other), sizeof bytes);
    std::memcpy(static_cast<void*>(&other), bytes.data(), sizeof bytes);
  }
  void grow() {
    U32 const capacity = std::max(4u, capacity_ + capacity_ / 2);
    Entry* const more = new Entry[capacity];
    std::copy(begin(), end(), more);
    if (capacity_ > 1) delete[] many_;
    many_ = more;
    capacity_ = capacity;
  }

  U32 size_ = 0, capacity_ = 1;
  union {
    Entry one_{};
    Entry* many_;  // with a capacity of more than one
  };
};

struct Group {
  IpGenAddr address;
  Entries entries;
};

/// Groups by address, in an array without holes; an open-addressing table of hashes and places finds them.
/// A walk that was left in the middle, at `cursor`, meets each group and entry once that is there all the
/// time, whatever is added and removed meanwhile.
class Groups {
 public:
  static constexpr U32 none = ~U32{0};

  /// The place of a walk; the front if there is none.
  struct Cursor {
    U32 group = 0, entry = 0;
  } cursor;

  bool empty() const { return all_.empty(); }
  U32 size() const { return static_cast<U32>(all_.size()); }
  Group& operator[](U32 place) { return all_[place]; }
  /// How many entries all groups have together.
  U32 routes() const { return routes_; }

  /// The place of a group, or none.
  U32 find(IpGenAddr const& address) const {
    if (all_.empty()) return none;
    U32 const hash = hashOf(address);
    for (U32 at = hash & mask(); slots_[at].group != none; at = (at + 1) & mask())
      if (slots_[at].hash == hash && all_[slots_[at].group].address == address) return slots_[at].group;
    return none;
  }

  /// False if the group has that very entry already. Another (*,G) entry takes the place of the one there.
  bool add(EntryKind kind, IpGenAddr const& address, IpGenAddr const& source) {
    U32 found = find(address);
    if (found == none) found = addGroup(address);
    Entries& entries = all_[found].entries;
    U32 const place = entries.placeOf(kind, source);
    if (entries.holds(place, kind, source)) return false;
    if (isWildcard(kind) && place < entries.size() && isWildcard(entries.begin()[place].kind)) {
      entries.begin()[place] = {source, kind};
      return true;
    }
    entries.insert(place, {source, kind});
    ++routes_;
    if (found == cursor.group && place < cursor.entry) ++cursor.entry;
    return true;
  }
  /// False if there is no such entry. A group that is empty then is removed.
  bool remove(EntryKind kind, IpGenAddr const& address, IpGenAddr const& source) {
    U32 const found = find(address);
    if (found == none) return false;
    Entries& entries = all_[found].entries;
    U32 const place = entries.placeOf(kind, source);
    if (!entries.holds(place, kind, source)) return false;
    entries.erase(place);
    --routes_;
    if (found == cursor.group && place < cursor.entry) --cursor.entry;
    if (entries.size() == 0) removeGroup(found);
    return true;
  }
  /// Removes what is taken from one group; the group, too, if nothing is left.
  void removeTaken(U32 place) {
    Entries& entries = all_[place].entries;
    U32 const before = entries.size();
    entries.eraseTaken();
    routes_ -= before - entries.size();
    if (entries.size() == 0) removeGroup(place);
  }

 private:
  struct Slot {
    U32 hash = 0, group = none;
  };

  static U32 hashOf(IpGenAddr const& address) { return address.order() >> 2; }
  U32 mask() const { return static_cast<U32>(slots_.size()) - 1; }

  U32 addGroup(IpGenAddr const& address) {
    if ((all_.size() + 1) * 4 > slots_.size() * 3) grow();
    all_.push_back({address, {}});
    insert({hashOf(address), size() - 1});
    return size() - 1;
  }
  void insert(Slot const& slot) {
    U32 at = slot.hash & mask();
    while (slots_[at].group != none) at = (at + 1) & mask();
    slots_[at] = slot;
  }
  void grow() {
    std::vector<Slot> const before = std::exchange(slots_, {});
    slots_.resize(std::max<std::size_t>(8, before.size() * 2));
    for (Slot const& slot : before)
      if (slot.group != none) insert(slot);
  }
  U32 slotOf(U32 place) const {
    U32 at = hashOf(all_[place].address) & mask();
    while (slots_[at].group != place) at = (at + 1) & mask();
    return at;
  }
  // Those behind it move up, unless they are at home.
  void freeSlot(U32 free) {
    for (U32 at = (free + 1) & mask(); slots_[at].group != none; at = (at + 1) & mask()) {
      if (((at - slots_[at].hash) & mask()) < ((at - free) & mask())) continue;
      slots_[free] = slots_[at];
      free = at;
    }
    slots_[free].group = none;
  }

  // What the cursor has passed stays in front of it, the group that it is in stays under it, and what it has
  // not met stays behind it.
  void removeGroup(U32 hole) {
    freeSlot(slotOf(hole));
    if (hole < cursor.group) {
      --cursor.group;
      hole = fill(hole, cursor.group);
      hole = fill(hole, cursor.group + 1);
    } else if (hole == cursor.group) {
      cursor.entry = 0;
    }
    fill(hole, size() - 1);
    all_.pop_back();
    if (cursor.group >= size()) cursor = {};
  }
  // Moves a group into a hole; where the hole is then.
  U32 fill(U32 hole, U32 from) {
    if (from == hole) return hole;
    slots_[slotOf(from)].group = hole;
    all_[hole] = std::move(all_[from]);
    return from;
  }

  std::vector<Group> all_;
  std::vector<Slot> slots_;  // a power of two of them, at most three quarters in use
  U32 routes_ = 0;
};

}  // namespace Plain
