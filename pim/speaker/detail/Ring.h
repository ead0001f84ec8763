// SPDX-License-Identifier: Apache-2.0
// Doubly linked rings of objects that are elsewhere.
#pragma once

namespace Routing::Pim::Speaker {

/// A place in a ring, or the head of one. An object that is in a ring has a base class of this type; the head
/// is a plain Ring. Joining and leaving are O(1) and need no memory. The destructor does not leave the ring.
class Ring {
 public:
  Ring() = default;
  Ring(Ring const&) = delete;
  Ring& operator=(Ring const&) = delete;

  /// Whether there is nothing else in the ring.
  bool alone() const { return next_ == this; }
  /// The one behind it; of a head, the first one.
  Ring& next() const { return *next_; }

  /// Leaves the ring that it is in, if any.
  void leave() {
    previous_->next_ = next_;
    next_->previous_ = previous_;
    previous_ = next_ = this;
  }
  /// Leaves its ring and joins another one, at the end.
  void join(Ring& head) {
    leave();
    next_ = &head;
    previous_ = head.previous_;
    previous_->next_ = next_->previous_ = this;
  }
  /// All others of a ring leave it and join this one's, at the end.
  void takeAll(Ring& head) {
    if (head.alone()) return;
    head.next_->previous_ = previous_;
    head.previous_->next_ = this;
    previous_->next_ = head.next_;
    previous_ = head.previous_;
    head.previous_ = head.next_ = &head;
  }

 private:
  Ring* previous_ = this;
  Ring* next_ = this;
};

}  // namespace Routing::Pim::Speaker
