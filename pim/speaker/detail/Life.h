// SPDX-License-Identifier: Apache-2.0
// Whether an object still exists after it has called out.
//
//     class Caller {
//       void change() {
//         Life::Watch const watch(life_);
//         observer_->changed();        // may destroy this object
//         if (watch.ended()) return;   // nothing of it may be touched
//         ++changes_;
//       }
//       Life life_;                    // the last member: it ends first
//     };
#pragma once

namespace Routing::Pim::Speaker {

/// A member of the object whose life is watched. It needs no memory of its own.
class Life {
 public:
  /// A variable of a function that calls out. Watches of one life end in the reverse order of their
  /// beginning.
  class Watch {
   public:
    /// Begins to watch.
    explicit Watch(Life const& life);
    Watch(Watch const&) = delete;
    Watch& operator=(Watch const&) = delete;
    ~Watch() {
      if (life_) life_->watch_ = outer_;
    }

    /// Whether the object was destroyed since.
    bool ended() const { return life_ == nullptr; }

   private:
    friend class Life;
    Life const* life_;  // Null once the object is destroyed.
    Watch* const outer_;
  };

  Life() = default;
  Life(Life const&) = delete;
  Life& operator=(Life const&) = delete;
  ~Life() {
    for (Watch* watch = watch_; watch; watch = watch->outer_) watch->life_ = nullptr;
  }

 private:
  mutable Watch* watch_ = nullptr;
};

}  // namespace Routing::Pim::Speaker
