// SPDX-License-Identifier: Apache-2.0
// State machines: entities that consist of reactors.
#pragma once

#include <functional>

#include "runtime/vel/Entity.h"

namespace Vel {

/// Base of the state machines. A machine owns nested reactors, which hold plain back pointers to it; the
/// pointers are cleared before the machine lets go of a reactor, so that a late notification finds no owner.
///
/// Everything that a handler calls may end the machine. So each handler that calls out has a MemoryHold on
/// its machine, asks `retired()` after each call, and returns without doing anything more if it is.
class VEL_API Machine : public Entity {
 public:
  /// True once the machine was removed by its owner, or its last reference was dropped: nothing that it made
  /// reacts any more, and its mutators do nothing. It stays true.
  bool retired() const { return retired_; }

  /// Switches the callbacks of all nested reactors on (the default) or off, those that come later included.
  /// What was missed is not made up for.
  virtual void hasNotificationActiveIs(bool active);
  void hasNotificationActiveIs(bool) const { throwConstInstance(); }
  /// Whether callbacks are on.
  bool hasNotificationActive() const { return active_; }

  /// Passes the call on to every nested reactor.
  virtual void velDoZombieReactors(bool zombie);
  void velDoZombieReactors(bool) const { throwConstInstance(); }

  /// Finishes start-up; see each machine. The factory calls it; a second call does nothing.
  virtual void handleInitialized() = 0;

 protected:
  /// What is done with each nested reactor.
  using ReactorVisitor = std::function<void(Reactor& reactor)>;

  /// Calls `visit` on every nested reactor there is, absent ones left out. The visitor may call out.
  virtual void velVisitReactors(ReactorVisitor const& visit) = 0;

  /// True the first time, unless the machine is retired: start-up is done once.
  bool start() { return !std::exchange(started_, true) && !retired_; }
  /// From now on the machine is retired. True the first time.
  bool retire() { return !std::exchange(retired_, true); }

  /// The last reference was dropped, so the machine is retired, whatever still holds its memory.
  void doTeardown() override { retire(); }

 private:
  bool active_ = true;
  bool started_ = false;
  bool retired_ = false;
};

}  // namespace Vel
