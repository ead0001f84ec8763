// SPDX-License-Identifier: Apache-2.0
// One interface and address family of a speaker: its engine, its neighbors, what is sent and what is
// received.
//
// The link is there as long as its interface. It is up while it has a primary address; then it has an
// engine and Neighbors, which end with it.
#pragma once

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/speaker/DownstreamRoutes.h"
#include "pim/speaker/PacketManager.h"
#include "pim/speaker/Speaker.h"

namespace Routing::Pim::Speaker {

/// What a link is to be.
struct LinkSetup {
  Dova::IpGenPrefix primary;         ///< The default if the link is to be down.
  std::vector<IpGenAddr> secondary;  ///< Of the same family.
  InterfaceSettings settings;

  friend bool operator==(LinkSetup const& a, LinkSetup const& b) = default;
};

/// All of its functions but the queries call out.
class SpeakerLink final : public Link, public NeighborsOwner, public PacketSink, public DownstreamObserver {
 public:
  SpeakerLink(Speaker& speaker, Dova::IntfId const& intf, AddressFamily family);
  ~SpeakerLink() override;

  /// Brings the link into this state. Called from inside one of its own callbacks, it takes effect when the
  /// change that is going on is complete.
  void setupIs(LinkSetup setup);
  /// Whether such a change is going on.
  bool isChanging() const { return isChanging_; }
  /// A packet of its family whose IP header is good.
  Verdict receive(IpGenAddr const& sender, IpGenAddr const& destination, std::span<U8 const> bytes,
                  std::optional<Wire::Refusal>& refusal);
  /// REQUIRES: not from one of this link's callbacks.
  void observerAdd(LinkObserver& observer) { observers_.push_back(&observer); }

  /// Whether this is an address of the interface.
  bool isOwn(IpGenAddr const& address) const;
  /// Null while the link is down.
  Neighbors const* neighbors() const { return neighbors_.get(); }

  /// What neighbors have asked for here.
  DownstreamRoutes const& downstream() const { return downstream_; }

  /// Of the neighbor that has this address; Vel::never without a refresh.
  Seconds nextRefresh(IpGenAddr const& address) const;

  /// Of joins and prunes; null while the link is down.
  std::pair<Vel::Ptr<JoinPruneMessageInfo>, Vel::Ptr<JoinPruneMessageInfo>> records() const {
    return {engine_.joins, engine_.prunes};
  }

  /// The engine's interface; null while the link is down.
  Vel::Ptr<Intf const> engineIntf() const { return engine_.intf; }

  Dova::IntfId const& intf() const override { return intf_; }
  AddressFamily family() const override { return family_; }
  IpGenAddr primaryAddress() const override { return present_.primary.ipGenAddr(); }
  bool isPointToPoint() const override { return wanted_.settings.pointToPoint; }
  U32 neighborCount() const override { return neighbors_ ? neighbors_->count() : 0; }
  bool neighborUp(IpGenAddr const& address) const override { return neighbors_ && neighbors_->isUp(address); }
  std::optional<IpGenAddr> neighborOf(IpGenAddr const& address) const override;
  Seconds propagationDelay() const override;
  Seconds overrideInterval() const override;
  bool suppressionAllowed() const override { return neighbors_ && neighbors_->values().suppressionAllowed(); }
  U16 holdTime() const override { return wanted_.settings.joinPruneHoldTime; }
  Seconds joinPruneInterval() const override { return wanted_.settings.joinPruneInterval; }
  bool isDenied(IpGenAddr const& group) const override;
  std::optional<IpGenAddr> rp(IpGenAddr const& group) const override;
  Vel::Ptr<Zanth::TimerWheel> const& wheel() const override { return speaker_.wheel_; }
  Random& random() const override { return speaker_.random_; }
  Vel::Ptr<JoinPruneStatus> const& dataSets() const override { return engine_.dataSets; }

 private:
  class SameLink;

  // All null while the link is down.
  struct Engine {
    Vel::Ptr<Status> status;
    Vel::Ptr<Intf> intf;
    Vel::Ptr<JoinPruneStatus> dataSets;
    Vel::Ptr<JoinPruneMessageInfo> joins, prunes;
    Vel::Ptr<IO::MessageInfo> channel;
    Vel::Ptr<PacketManager> manager;
    Vel::Ptr<JoinPruneMessageSm> machine;
  };

  void bringUp();
  void bringDown();
  void adjust();

  Sent sendHello(Wire::Hello const& hello) override;
  void onLanValues() override;
  void onNeighborUp(IpGenAddr const& neighbor) override;
  void onNeighborAddresses(IpGenAddr const& neighbor) override;
  void onNeighborDown(IpGenAddr const& neighbor) override;
  void onNeighborRestarted(IpGenAddr const& neighbor) override;
  Vel::U32 routesTowards(IpGenAddr const& address) const override;
  void onNeighborEvent(NeighborEvent const& event) override;
  void send(OutgoingPacket const& packet) override;
  void downstreamChanged(DownstreamEvent const& event) override;
  void downstreamLimited(DownstreamLimitEvent const& event) override;

  Verdict receiveHello(IpGenAddr const& sender, Wire::Hello const& hello);
  Verdict receiveJoinPrune(IpGenAddr const& sender, Wire::JoinPrune const& message);
  void tellEngine(Wire::JoinPrune const& message);
  template <class Call>
  void forObservers(Call const& call);

  void updateOverrideInterval();
  void overrideTimerExpired();
  void remakeMachine(IpGenAddr const& neighbor);
  Vel::Ptr<PeriodicTimerSm> runningRefresh(IpGenAddr const& neighbor) const;
  Seconds nextRefreshOf(IpGenAddr const& neighbor) const;
  void hastenRefresh(IpGenAddr const& neighbor, double part);
  bool hasFraction() const;
  void keepPace();

  // Fixed at construction.
  Speaker& speaker_;
  Dova::IntfId const intf_;
  AddressFamily const family_;

  LinkSetup wanted_, present_;
  bool isComplete_ = true;  // All of the present setup was taken over.
  bool isChanging_ = false;
  Engine engine_;
  std::unique_ptr<Neighbors> neighbors_;
  DownstreamRoutes downstream_;
  std::vector<LinkObserver*> observers_;  // the downstream and the upstream routes are the first two

  // The engine's override interval: it was changed last within this Hello_Period while the timer is armed.
  Timer overrideTimer_;
  U32 raises_ = 0;   // Within it.
  Timer paceTimer_;  // Of an interval that is not in whole seconds.
  Life life_;
};

}  // namespace Routing::Pim::Speaker
