// State machines: entities that consist of reactors.
#pragma once

#include <functional>

#include "runtime/vel/Entity.h"

namespace Vel {

/// Base of the state machines. A machine owns nested reactors, which hold plain back pointers to it; the
/// pointers are cleared before the machine lets go of a reactor, so that a late notification finds no owner.
class VEL_API Machine : public Entity {
 public:
  /// Keeps a machine's memory while one of its handlers calls out. Everything that a handler calls may end the
  /// machine, so each handler that calls out holds its machine and asks `gone()` before it goes on.
  class Hold {
   public:
    /// For the length of a handler.
    explicit Hold(Machine const* machine) : machine_(machine), keep_(machine) {}
    Hold(Hold const&) = delete;
    Hold& operator=(Hold const&) = delete;

    /// True once the machine was retired, or when nobody has it but what is running.
    bool gone() const { return machine_->retired_ || !machine_->velReferred(); }

   private:
    Machine const* machine_;
    Keep keep_;
  };

  /// Switches the callbacks of all nested reactors on (the default) or off, those that come later included.
  /// What was missed is not made up for.
  virtual void hasNotificationActiveIs(bool active);
  /// Whether callbacks are on.
  bool hasNotificationActive() const { return active_; }

  /// Passes the call on to every nested reactor.
  virtual void velDoZombieReactors(bool zombie);

  /// Finishes start-up; see each machine.
  virtual void handleInitialized() = 0;

 protected:
  /// What is done with each nested reactor.
  using ReactorVisitor = std::function<void(Reactor& reactor)>;

  /// Calls `visit` on every nested reactor there is, absent ones left out. The visitor may call out.
  virtual void velVisitReactors(ReactorVisitor const& visit) = 0;

  /// True after `retire()`.
  bool retired() const { return retired_; }
  /// True the first time.
  bool retire() { return !std::exchange(retired_, true); }

 private:
  bool active_ = true;
  bool retired_ = false;
};

}  // namespace Vel
