// SPDX-License-Identifier: Apache-2.0
// The times at which very many objects want to be looked at.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Speaker {

/// A binary heap of objects by time, so that a class with a million timers needs one timer on the wheel and
/// 16 bytes for each. An Element has a member `std::size_t deadlineIndex`, which belongs to this class.
///
/// A deadline that becomes later need not be told: the code that takes the first element looks at the
/// element's own time and moves it then. So a route that is refreshed again and again costs nothing here.
template <class Element>
class Deadlines {
 public:
  /// An element and its time.
  struct Item {
    Vel::Seconds time;  ///< When it is to be looked at.
    Element* element;   ///< Not owned.
  };

  /// Whether there are none.
  bool empty() const { return items_.empty(); }
  /// How many there are.
  std::size_t size() const { return items_.size(); }
  /// The one with the earliest time. REQUIRES: not empty.
  Item const& first() const { return items_.front(); }
  /// Any one that is cheap to remove. REQUIRES: not empty.
  Element& last() const { return *items_.back().element; }

  /// Takes memory for one more, so that add() cannot fail.
  void reserveOne() {
    if (items_.size() == items_.capacity()) items_.reserve(2 * items_.size() + 4);
  }
  /// Adds an element that is not there. O(log n). Throws std::bad_alloc, and then nothing has changed.
  void add(Element& element, Vel::Seconds time) {
    items_.push_back({time, &element});
    rise(items_.size() - 1);
  }
  /// Removes an element. O(log n). REQUIRES: it is there.
  void remove(Element& element) {
    std::size_t const at = element.deadlineIndex;
    Item const moved = items_.back();
    items_.pop_back();
    if (at == items_.size()) return;
    items_[at] = moved;
    settle(at);
  }
  /// Moves an element. O(log n). REQUIRES: it is there.
  void timeIs(Element& element, Vel::Seconds time) {
    items_[element.deadlineIndex].time = time;
    settle(element.deadlineIndex);
  }
  /// Moves an element if the time is earlier than its own. REQUIRES: it is there.
  void noLaterThan(Element& element, Vel::Seconds time) {
    if (time < items_[element.deadlineIndex].time) timeIs(element, time);
  }

 private:
  void settle(std::size_t at) {
    if (at != 0 && items_[at].time < items_[(at - 1) / 2].time)
      rise(at);
    else
      sink(at);
  }
  void rise(std::size_t at) {
    Item const item = items_[at];
    for (std::size_t above; at != 0 && item.time < items_[above = (at - 1) / 2].time; at = above)
      put(at, items_[above]);
    put(at, item);
  }
  void sink(std::size_t at) {
    Item const item = items_[at];
    for (;;) {
      std::size_t below = 2 * at + 1;
      if (below >= items_.size()) break;
      if (below + 1 < items_.size() && items_[below + 1].time < items_[below].time) ++below;
      if (!(items_[below].time < item.time)) break;
      put(at, items_[below]);
      at = below;
    }
    put(at, item);
  }
  void put(std::size_t at, Item const& item) {
    items_[at] = item;
    item.element->deadlineIndex = at;
  }

  std::vector<Item> items_;
};

}  // namespace Routing::Pim::Speaker
