// SPDX-License-Identifier: Apache-2.0
// The commands on interfaces, neighbors, RPs and policies.
#include "jpagent/simulate/Inside.h"

namespace Routing::Pim::Jpagent {

void Simulation::changeInterface(InterfaceCommand const& command) {
  Dova::IntfId const id(command.name);
  if (command.down && !pimStatus_->pimIntf(id)) refuse("interface {} is not up", command.name);
  auto& intf = intfs_[command.name];
  if (!intf) intf = Vel::create<Intf>(id);
  if (command.holdTime) intf->joinPruneHoldTimeIs(*command.holdTime);
  if (command.interval) intf->joinPruneIntervalIs(*command.interval);
  if (command.overrideInterval) intf->usedOverrideIntervalInSecondsIs(*command.overrideInterval);
  if (command.mtu) manager_->mtuIs(id, *command.mtu);
  if (command.renew) {
    auto const renewed = Vel::create<Intf>(id);
    renewed->joinPruneHoldTimeIs(intf->joinPruneHoldTime());
    renewed->joinPruneIntervalIs(intf->joinPruneInterval());
    renewed->usedOverrideIntervalInSecondsIs(intf->usedOverrideIntervalInSeconds());
    renewed->usedAddressWithMaskIs(intf->usedAddressWithMask());
    intf = renewed;
    if (pimStatus_->pimIntf(id)) pimStatus_->pimIntfIs(renewed);
  }
  if (command.address) intf->usedAddressWithMaskIs(*command.address);
  if (command.notify) intf->usedAddressWithMaskNotify();
}

void Simulation::on(InterfaceCommand const& command) {
  changeInterface(command);
  Dova::IntfId const id(command.name);
  if (command.down)
    pimStatus_->pimIntfDel(id);
  else if (!pimStatus_->pimIntf(id))
    pimStatus_->pimIntfIs(intfs_.at(command.name));
}

void Simulation::on(NeighborCommand const& command) {
  auto const address = toText(command.address);
  auto const known = neighbors_.find(command.address);
  touched_.insert(command.address);
  if (command.intf.empty() && known == neighbors_.end()) refuse("there is no neighbor {}", address);
  if (!command.down) {
    auto const intf = command.intf.empty() ? known->second : knownIntf(command.intf);
    if (auto const present = pimStatus_->pimNeighbor(command.address); present && present->intf() != intf)
      refuse("neighbor {} is on {}", address, present->intf()->intfId().name());
    pimStatus_->pimNeighborIs(command.address, intf);
    neighbors_[command.address] = intf;
  } else if (!pimStatus_->pimNeighborDel(command.address)) {
    refuse("neighbor {} is not up", address);
  }
}

void Simulation::on(RpCommand const& command) {
  try {
    rps_->table.add(command.text);
  } catch (OptionError const& e) {
    refuse("{}", e.what());
  }
}

void Simulation::on(PolicyCommand const& command) {
  Groups* const policies[] = {denied_.get(), filtered_.get(), suppressed_.get()};
  auto& policy = *policies[static_cast<std::size_t>(command.policy)];
  if (!command.off)
    policy.add(command.groups);
  else if (!policy.remove(command.groups))
    refuse("these groups were not named before");
}

}  // namespace Routing::Pim::Jpagent
