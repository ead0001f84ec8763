// SPDX-License-Identifier: Apache-2.0
// What PIM knows about its surroundings.
//
// Which file of this folder does what:
//
//   Status.h                     the interfaces and neighbors of the router
//   Intf.h                       an interface: its address and its timer values
//   Neighbor.h                   a neighbor: its address and its interface
//   RpHashComputeStatus.h        which RP serves a group; the agent derives from it
//   RouteKey.h                   a route, and a route on an interface, as keys
//   PeriodicTimerSm.h            the pace of a refresh: how it is cut into slices
//
// Messages in structured form:
//
//   packet/JoinPruneMessage.h    a message, and the report on what was sent of it
//   packet/JoinPruneData.h       a data set: the groups for one upstream neighbor
//   packet/JoinPruneGroupData.h  one group's joined and pruned sources
//   packet/JoinPruneStatus.h     the periodic data sets of all upstream neighbors
//   packet/SourceFlags.h         the flags S, W and R of a source
//   packet/GroupEntries.h        the entries of a group by their kind
//
// Where the agent's packet layer and the engine meet:
//
//   io/MessageInfo.h             one message after another: the receive channel, the transmit record
//   io/PamManager.h              the packet manager, which has the transmit record
//
// and what no program includes: in detail/ what these headers need, in private/ what is not installed.
//
//   detail/EngineAccess.h        the way of the engine to what a class keeps for it
//   private/ModelAccess.h        what the model keeps for the engine and the packet manager
//   packet/private/GroupWalk.h   a fast walk over very many groups
#pragma once

#include "pim/model/Neighbor.h"

namespace Routing::Pim {

/// The PIM interfaces and neighbors of the router. The agent keeps it in step with the world; the Join/Prune
/// machines follow it.
class VEL_API Status final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId { pimIntfId = Vel::firstAttributeId, pimNeighborId };

  class NotifieeConst : public Vel::ReactorOn<Status> {
   public:
    virtual void onPimIntf(Dova::IntfId) {}
    virtual void onPimIntfvelImmediate() {}
    virtual void onPimIntf() { handleDefault("pimIntf"); }
    virtual void onPimNeighbor(Dova::IpGenAddr) {}
    virtual void onPimNeighborvelImmediate() {}
    virtual void onPimNeighbor() { handleDefault("pimNeighbor"); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, Status>;

  /// The interfaces. `pimIntfIs(id)` makes one without an address; one that is configured first can be put
  /// with `pimIntfIs(intf)`.
  VEL_ENTITIES_PUT(Dova::IntfId, Intf, pimIntf, PimIntf, Routing::Pim::Status)
  VEL_ENTITIES(Dova::IntfId, Intf, pimIntf, PimIntf);

  /// The neighbors, by address.
  VEL_ENTITIES_PUT(Dova::IpGenAddr, Neighbor, pimNeighbor, PimNeighbor, Routing::Pim::Status)
  VEL_ENTITIES_DEL(Dova::IpGenAddr, Neighbor, pimNeighbor, PimNeighbor)
  VEL_ENTITIES_READ(Dova::IpGenAddr, Neighbor, pimNeighbor, PimNeighbor);

 public:
  /// Finds the neighbor, or makes it on that interface. One that is there on another interface throws the
  /// range exception "Reinstantiating the pointer interface ...".
  Vel::Ptr<Neighbor> pimNeighborIs(Dova::IpGenAddr const& address, Vel::Ptr<Intf const> const& intf);
  Vel::Ptr<Neighbor> pimNeighborIs(Dova::IpGenAddr const&, Vel::Ptr<Intf const> const&) const {
    Vel::throwConstInstance();
  }

  Vel::AttributeTable const& attributeTable() const override;

 protected:
  void doTeardown() override;
};

}  // namespace Routing::Pim
