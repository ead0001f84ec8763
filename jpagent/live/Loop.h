// SPDX-License-Identifier: Apache-2.0
// What the loop of `jpagent run` watches, as objects that may be destroyed at any time, from inside their own
// callback too. (libuv wants a handle to stay until it says so.)
//
//     Watch watch(loop, descriptor, [] { ... });
//     watch.eventsAre(UV_READABLE);
#pragma once

#include <uv.h>

#include <functional>
#include <memory>
#include <utility>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent::Live {

using Vel::Seconds;

/// Seconds since the start of the machine, the time during which it was suspended included: what neighbors
/// have said expires then, too.
Seconds monotonicSeconds();

/// A handle of the loop that calls a function.
class Caller {
 public:
  Caller(Caller const&) = delete;
  Caller& operator=(Caller const&) = delete;

 protected:
  struct State {
    uv_any_handle handle;
    int events = 0;  // of a descriptor that is watched
    std::function<void()> call;
  };

  /// REQUIRES: a derived class initializes the handle at once.
  explicit Caller(std::function<void()> call);
  ~Caller();
  template <class Handle>
  static void called(Handle* handle) {
    static_cast<State*>(handle->data)->call();
  }

  State* const state_;  // freed by the loop
};

/// Watches a descriptor. A file or device that cannot be polled is always readable.
class Watch final : public Caller {
 public:
  /// The descriptor stays the caller's, and must be open as long as this lives. Its flags do not change.
  /// Throws std::system_error.
  Watch(uv_loop_t& loop, int descriptor, std::function<void()> ready);

  /// UV_READABLE, UV_WRITABLE, both, or 0.
  void eventsAre(int events);

 private:
  static void polled(uv_poll_t* handle, int status, int events);

  bool isPolled_ = true;
};

/// Calls when the process gets a signal.
class SignalWatch final : public Caller {
 public:
  /// Throws std::system_error.
  SignalWatch(uv_loop_t& loop, int signal, std::function<void()> received);
};

/// Calls again and again.
class Ticker final : public Caller {
 public:
  Ticker(uv_loop_t& loop, Seconds period, std::function<void()> tick);
};

/// The loop itself, and the alarm for the next timer of the speaker.
class Loop {
 public:
  /// `beforeWaiting` is called before each time that the loop waits. Throws std::system_error.
  explicit Loop(std::function<void()> beforeWaiting);
  /// All watches must have ended.
  ~Loop();
  Loop(Loop const&) = delete;
  Loop& operator=(Loop const&) = delete;

  uv_loop_t& uv() { return loop_; }
  /// Returns after stop().
  void run();
  /// From inside a callback.
  void stop();
  /// Has the loop wait no longer than until then, on monotonicSeconds().
  void wakeAt(Seconds time);

 private:
  std::function<void()> const beforeWaiting_;
  uv_loop_t loop_;
  uv_prepare_t prepare_;
  int alarm_ = -1;
  std::unique_ptr<Watch> alarmWatch_;
};

}  // namespace Routing::Pim::Jpagent::Live
