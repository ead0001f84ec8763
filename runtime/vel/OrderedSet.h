// SPDX-License-Identifier: Apache-2.0
// A set of keys in ascending order.
//
// The keys lie side by side in leaves of up to 64; where there is more than one leaf, a list of separators
// says which one is a key's. So a search compares keys that are neighbors in memory, and a walk is a walk
// over arrays. A leaf that is full is halved, one that gets nearly empty joins a neighbor that is at most
// half full with it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "runtime/vel/Types.h"

namespace Vel {

/// A set of keys in ascending order. An empty one has no heap. Adding throws std::bad_alloc, and then nothing
/// has changed; removing needs no memory.
template <class K>
class OrderedSet {
  static_assert(std::is_nothrow_move_constructible_v<K> && std::is_nothrow_move_assignable_v<K>,
                "keys move aside for others, which must not fail half-way");
  using Leaf = std::vector<K>;

 public:
  /// What the set holds.
  using Key = K;

  OrderedSet() = default;
  OrderedSet(OrderedSet const&) = delete;
  OrderedSet& operator=(OrderedSet const&) = delete;

  class Cursor {
   public:
    bool first(OrderedSet const& set) {
      leaf_ = 0;
      if (!set.body_) return false;
      return arriveAt(set, set.body_->first.data());
    }
    bool after(OrderedSet const& set, Key const& key) {
      if (!set.body_) return false;
      leaf_ = set.body_->leafOf(key);
      Leaf const& leaf = set.body_->leaf(leaf_);
      return arriveAt(set, leaf.data() + partition(leaf, [&](Key const& one) { return !(key < one); }));
    }
    bool next(OrderedSet const& set) {
      if (set.epoch_ != epoch_) return after(set, key_);
      if (++at_ == end_) return arriveAt(set, at_);
      key_ = *at_;
      return true;
    }
    Key const& key() const { return key_; }

   private:
    // At a key, or at the end of a leaf.
    bool arriveAt(OrderedSet const& set, Key const* at) {
      epoch_ = set.epoch_;
      at_ = at;
      end_ = endOf(set.body_->leaf(leaf_));
      if (at_ == end_) {
        if (leaf_ == set.body_->more.size()) return false;
        Leaf const& leaf = set.body_->leaf(++leaf_);
        at_ = leaf.data();
        end_ = endOf(leaf);
      }
      key_ = *at_;
      return true;
    }
    static Key const* endOf(Leaf const& leaf) { return leaf.data() + leaf.size(); }

    Key key_;
    Key const* at_ = nullptr;  // in a leaf, up to its end
    Key const* end_ = nullptr;
    std::size_t leaf_ = 0;
    U32 epoch_ = 0;
  };

  /// Whether the key is there.
  bool contains(Key const& key) const {
    if (!body_) return false;
    Leaf const& leaf = body_->leaf(body_->leafOf(key));
    std::size_t const at = placeOf(leaf, key);
    return at < leaf.size() && leaf[at] == key;
  }

  /// True if the key was absent.
  bool insert(Key const& key) {
    if (!body_) {
      auto body = std::make_unique<Body>();
      body->first.push_back(key);
      body_ = std::move(body);
    } else {
      std::size_t index = body_->leafOf(key);
      std::size_t at = placeOf(body_->leaf(index), key);
      if (Leaf const& leaf = body_->leaf(index); at < leaf.size() && leaf[at] == key) return false;
      if (body_->leaf(index).size() == most) {
        body_->split(index);
        ++epoch_;
        if (at > most / 2) {
          at -= most / 2;
          ++index;
        }
      }
      Leaf& leaf = body_->leaf(index);
      leaf.insert(leaf.begin() + static_cast<std::ptrdiff_t>(at), key);
    }
    ++size_;
    ++epoch_;
    return true;
  }

  /// True if the key was present.
  bool remove(Key const& key) {
    if (!body_) return false;
    std::size_t const index = body_->leafOf(key);
    Leaf& leaf = body_->leaf(index);
    std::size_t const at = placeOf(leaf, key);
    if (at == leaf.size() || !(leaf[at] == key)) return false;
    leaf.erase(leaf.begin() + static_cast<std::ptrdiff_t>(at));
    --size_;
    ++epoch_;
    if (size_ == 0)
      body_.reset();
    else if (leaf.size() < most / 4)
      body_->merge(index);
    return true;
  }

  /// How many keys there are.
  U32 size() const { return size_; }

 private:
  static constexpr std::size_t most = 64;  // in a leaf

  // How many keys from the front on fulfil a condition that those behind do not. Which way the search takes
  // cannot be foreseen, so this is written to be computed without branches.
  template <class Condition>
  static std::size_t partition(std::vector<Key> const& keys, Condition const& condition) {
    Key const* first = keys.data();
    std::size_t count = keys.size();
    while (count > 1) {
      std::size_t const half = count / 2;
      first += condition(first[half - 1]) ? half : 0;
      count -= half;
    }
    return static_cast<std::size_t>(first - keys.data()) + (count == 1 && condition(*first));
  }
  static std::size_t placeOf(Leaf const& leaf, Key const& key) {
    return partition(leaf, [&](Key const& one) { return one < key; });
  }

  // The leaves: `first`, and `more`, each of which has keys not less than its separator; all keys before it
  // are less.
  struct Body {
    std::size_t leafOf(Key const& key) const {
      if (more.empty()) return 0;
      return partition(separators, [&](Key const& separator) { return !(key < separator); });
    }
    Leaf& leaf(std::size_t index) { return index == 0 ? first : more[index - 1]; }

    // Everything that needs memory comes first.
    void split(std::size_t index) {
      if (more.size() == more.capacity()) more.reserve(2 * more.size() + 1);
      if (separators.size() == separators.capacity()) separators.reserve(2 * separators.size() + 1);
      Leaf upper;
      upper.reserve(most);
      auto const middle = static_cast<std::ptrdiff_t>(most / 2), place = static_cast<std::ptrdiff_t>(index);
      Key separator = leaf(index)[most / 2];
      Leaf& lower = leaf(index);
      upper.assign(std::make_move_iterator(lower.begin() + middle), std::make_move_iterator(lower.end()));
      lower.erase(lower.begin() + middle, lower.end());
      more.insert(more.begin() + place, std::move(upper));
      separators.insert(separators.begin() + place, std::move(separator));
    }

    // Joins a leaf with the one behind it, or before it, if the two leave room to grow. An empty one always
    // is removed. No memory is needed: where there are several leaves, each has room for `most`.
    void merge(std::size_t index) {
      if (index < more.size() && join(index)) return;
      if (index > 0) join(index - 1);
    }

    // The leaf and the one behind it. False if they are too full.
    bool join(std::size_t lower) {
      Leaf &a = leaf(lower), &b = leaf(lower + 1);
      if (a.size() + b.size() > most / 2 && !a.empty() && !b.empty()) return false;
      a.insert(a.end(), std::make_move_iterator(b.begin()), std::make_move_iterator(b.end()));
      auto const place = static_cast<std::ptrdiff_t>(lower);
      more.erase(more.begin() + place);
      separators.erase(separators.begin() + place);
      return true;
    }

    Leaf first;
    std::vector<Leaf> more;
    std::vector<Key> separators;
  };

  std::unique_ptr<Body> body_;
  U32 size_ = 0;
  U32 epoch_ = 0;
};

}  // namespace Vel
