// SPDX-License-Identifier: Apache-2.0
// A timer as a member of an object.
#pragma once

#include <functional>

#include "runtime/zanth/TimerWheel.h"

namespace Routing::Pim::Speaker {

using Vel::Seconds;

/// Calls a function when its time has come. It ends with its owner: the function is not called after the
/// destruction of the timer, and it may destroy the timer.
class Timer {
 public:
  /// On a wheel, not armed. The wheel is kept.
  Timer(Vel::Ptr<Zanth::TimerWheel> const& wheel, std::function<void()> onExpiry)
      : reactor_(Vel::create<Reactor>(std::move(onExpiry))) {
    reactor_->notifierIs(wheel);
  }
  Timer(Timer const&) = delete;
  Timer& operator=(Timer const&) = delete;
  ~Timer() {
    reactor_->end();
    reactor_->notifierIs(nullptr);
  }

  /// Arms or moves it, to an absolute time of the wheel's clock; `Vel::never` stops it. The same time:
  /// nothing.
  void armAt(Seconds time) {
    if (time != reactor_->timeMin()) reactor_->timeMinIs(time);
  }
  /// Stops it.
  void stop() { armAt(Vel::never); }
  /// Whether it is armed.
  bool armed() const { return reactor_->armed(); }
  /// When it expires; `Vel::never` if it is not armed.
  Seconds time() const { return reactor_->timeMin(); }

 private:
  class Reactor final : public Zanth::TimerWheel::Notifiee {
   public:
    explicit Reactor(std::function<void()> onExpiry) : onExpiry_(std::move(onExpiry)) {}
    void end() { ended_ = true; }

   private:
    void onTime() override {
      Vel::MemoryHold const memory(this);  // The function may destroy the timer.
      if (!ended_) onExpiry_();
    }

    std::function<void()> const onExpiry_;
    bool ended_ = false;
  };

  Vel::Ptr<Reactor> const reactor_;
};

}  // namespace Routing::Pim::Speaker
