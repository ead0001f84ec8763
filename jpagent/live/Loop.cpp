// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/Loop.h"

#include <fcntl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <system_error>

namespace Routing::Pim::Jpagent::Live {

namespace {

void require(int result, char const* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

}  // namespace

Seconds monotonicSeconds() {
  timespec time;
  clock_gettime(CLOCK_BOOTTIME, &time);
  return static_cast<Seconds>(time.tv_sec) + static_cast<Seconds>(time.tv_nsec) / 1e9;
}

// --- Watches, signals, ticks ----------------------------------------------------------------------

Caller::Caller(std::function<void()> call) : state_(new State) {
  state_->call = std::move(call);
  state_->handle.handle.data = state_;
}

Caller::~Caller() {
  uv_close(&state_->handle.handle, [](uv_handle_t* handle) { delete static_cast<State*>(handle->data); });
}

Watch::Watch(uv_loop_t& loop, int descriptor, std::function<void()> ready) : Caller(std::move(ready)) {
  int const flags = fcntl(descriptor, F_GETFL);
  int const result = uv_poll_init(&loop, &state_->handle.poll, descriptor);
  // Others may have the descriptor open too, as a terminal is, and libuv has made it non-blocking for them.
  if (flags >= 0) fcntl(descriptor, F_SETFL, flags);
  if (result >= 0) return;
  isPolled_ = false;
  uv_idle_init(&loop, &state_->handle.idle);
  if (result != UV_EPERM) require(result, "watching a descriptor");
}

// An error of the descriptor is what the next read or write returns; libuv has stopped polling then.
void Watch::polled(uv_poll_t* handle, int status, int) {
  if (status < 0) uv_poll_start(handle, static_cast<State*>(handle->data)->events, polled);
  called(handle);
}

void Watch::eventsAre(int events) {
  if (std::exchange(state_->events, events) == events) return;
  auto* const poll = &state_->handle.poll;
  auto* const idle = &state_->handle.idle;
  if (isPolled_)
    events == 0 ? uv_poll_stop(poll) : uv_poll_start(poll, events, polled);
  else
    events == 0 ? uv_idle_stop(idle) : uv_idle_start(idle, [](uv_idle_t* handle) { called(handle); });
}

SignalWatch::SignalWatch(uv_loop_t& loop, int signal, std::function<void()> received)
    : Caller(std::move(received)) {
  uv_signal_init(&loop, &state_->handle.signal);
  uv_unref(&state_->handle.handle);
  require(uv_signal_start(
              &state_->handle.signal, [](uv_signal_t* handle, int) { called(handle); }, signal),
          "signals");
}

Ticker::Ticker(uv_loop_t& loop, Seconds period, std::function<void()> tick) : Caller(std::move(tick)) {
  uv_timer_init(&loop, &state_->handle.timer);
  auto const milliseconds = static_cast<std::uint64_t>(std::max(1.0, period * 1000));
  uv_timer_start(
      &state_->handle.timer, [](uv_timer_t* handle) { called(handle); }, milliseconds, milliseconds);
}

// --- Loop ----------------------------------------------------------------------------------------

Loop::Loop(std::function<void()> beforeWaiting) : beforeWaiting_(std::move(beforeWaiting)) {
  require(uv_loop_init(&loop_), "the loop");
  uv_prepare_init(&loop_, &prepare_);
  prepare_.data = this;
  uv_prepare_start(&prepare_,
                   [](uv_prepare_t* handle) { static_cast<Loop*>(handle->data)->beforeWaiting_(); });
  alarm_ = timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC);
  if (alarm_ < 0) throw std::system_error(errno, std::generic_category(), "the loop's alarm");
  alarmWatch_ = std::make_unique<Watch>(loop_, alarm_, [this] {
    std::uint64_t expirations;
    [[maybe_unused]] auto const size = read(alarm_, &expirations, sizeof expirations);
  });
  alarmWatch_->eventsAre(UV_READABLE);
}

Loop::~Loop() {
  alarmWatch_.reset();
  close(alarm_);
  uv_close(reinterpret_cast<uv_handle_t*>(&prepare_), nullptr);
  uv_run(&loop_, UV_RUN_DEFAULT);  // what is closed is freed here
  uv_loop_close(&loop_);
}

void Loop::run() { uv_run(&loop_, UV_RUN_DEFAULT); }

void Loop::stop() { uv_stop(&loop_); }

void Loop::wakeAt(Seconds time) {
  itimerspec at{};  // zero: never
  constexpr Seconds farthest = 1e9;
  if (time < farthest) {
    Seconds const whole = std::floor(std::max(time, 0.0));
    at.it_value.tv_sec = static_cast<time_t>(whole);
    // Rounded up: who wakes too early has to wait again.
    at.it_value.tv_nsec = std::min(static_cast<long>(std::ceil((time - whole) * 1e9)) + 1, 999'999'999l);
  }
  timerfd_settime(alarm_, TFD_TIMER_ABSTIME, &at, nullptr);
}

}  // namespace Routing::Pim::Jpagent::Live
