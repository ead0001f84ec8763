// SPDX-License-Identifier: Apache-2.0
// An agent that several threads of a test use.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/jpagent/live/Lab.h"

namespace Routing::Pim::Jpagent::Live::Test {

/// Ends a case.
struct CaseFailed : std::runtime_error {
  using runtime_error::runtime_error;
};

/// An agent whose lines are read by a thread, and told to who waits for them.
class SharedAgent {
 public:
  using Listener = std::function<void(Json event)>;

  ~SharedAgent() { end(); }

  /// Who takes the events of an interface. REQUIRES: before start().
  void listenerIs(std::string const& intf, Listener listener) { listeners_[intf] = std::move(listener); }
  void start(std::vector<std::string> const& words) {
    process_.emplace(words);
    reader_ = std::thread([this] { read(); });
  }

  /// The reply to a command. May be called by any thread.
  Json ask(std::string const& command) {
    std::lock_guard const one(asking_);
    std::unique_lock lock(mutex_);
    process_->write(command + "\n");
    if (!replied_.wait_for(lock, std::chrono::seconds(10), [this] { return !replies_.empty(); }))
      throw CaseFailed("no reply to " + command);
    Json reply = std::move(replies_.front());
    replies_.pop_front();
    return reply;
  }
  /// Has it begin to end.
  void quit() {
    if (!std::exchange(isQuitting_, true)) process_->signal(SIGTERM);
  }
  /// Ends it, and returns the exit status.
  int end() {
    if (!reader_.joinable()) return 0;
    quit();  // a second signal would leave out the prunes
    int const status = process_->wait();
    isEnding_ = true;
    reader_.join();
    return status;
  }

 private:
  void read() {
    std::string rest;
    for (;;) {
      auto const bytes = process_->read(0.05);
      if (bytes.empty() && isEnding_) return;
      rest += bytes;
      std::size_t begin = 0;
      for (auto at = rest.find('\n'); at != rest.npos; at = rest.find('\n', begin)) {
        auto event = Json::parse(rest.substr(begin, at - begin), nullptr, false);
        begin = at + 1;
        if (event.is_object()) take(std::move(event));
      }
      rest.erase(0, begin);
    }
  }
  void take(Json event) {
    if (event["event"] == "reply") {
      std::lock_guard const lock(mutex_);
      replies_.push_back(std::move(event));
      replied_.notify_one();
      return;
    }
    auto const intf = event.value("interface", "");
    if (auto const found = listeners_.find(intf); found != listeners_.end()) {
      found->second(std::move(event));
      return;
    }
    // A warning names its interface in a text.
    auto const what = event.value("what", "") + " ";
    for (auto const& [name, listener] : listeners_)
      if (what.find(" " + name + " ") != what.npos) listener(event);
  }

  std::optional<Process> process_;
  std::map<std::string, Listener> listeners_;
  std::mutex asking_, mutex_;
  std::condition_variable replied_;
  std::deque<Json> replies_;
  std::thread reader_;
  bool isQuitting_ = false;
  std::atomic<bool> isEnding_ = false;
};

}  // namespace Routing::Pim::Jpagent::Live::Test
