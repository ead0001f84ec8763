// SPDX-License-Identifier: Apache-2.0
// The commands on interfaces, neighbors and RPs.
#include "jpagent/simulate/CommandTable.h"

namespace Routing::Pim::Jpagent {

InterfaceCommand takeInterface(Words& words, Other const& other) {
  InterfaceCommand command;
  if (!words) words.fail("the name of an interface");
  command.name = words.take();
  while (words) {
    if (words.taken("hold")) {
      command.holdTime = words.number<U16>(0, 65535, "a hold time in seconds");
    } else if (words.taken("interval")) {
      command.interval = words.number<U32>(1, 65535, "an interval in whole seconds");
    } else if (words.taken("override")) {
      command.overrideInterval = words.seconds();
    } else if (words.taken("mtu")) {
      command.mtu = words.number<U32>(68, 65535, "an MTU in bytes");
    } else if (words.taken("none")) {
      command.address = IpGenPrefix();
    } else if (words.taken("notify")) {
      command.notify = true;
    } else if (words.taken("down")) {
      command.down = true;
    } else if (words.taken("renew")) {
      command.renew = true;
    } else if (!other()) {
      auto const address = IpGenPrefix::fromText(words.peek());
      if (!address || Wire::sourceFault(address->ipGenAddr(), address->ipGenAddr().af())) {
        words.fail(
            "an address such as 10.0.0.1/24, none, hold, interval, override, mtu, notify, renew or down");
      }
      command.address = address;
      words.take();
    }
  }
  return command;
}

NeighborCommand takeNeighbor(Words& words, Other const& other) {
  NeighborCommand command;
  auto const address = IpGenAddr::fromText(words.peek());
  if (!address || Wire::upstreamFault(*address)) words.fail("the address of a neighbor");
  command.address = *address;
  words.take();
  if (words.taken("down")) {
    command.down = true;
  } else if (!other() && !words.taken("up")) {
    if (!words.taken("on")) words.fail("\"on\", \"down\" or \"up\"");
    if (!words) words.fail("the name of an interface");
    command.intf = words.take();
  }
  return command;
}

Command rp(Words& words) {
  RpCommand command{std::string(words.take())};
  try {
    RpTable().add(command.text);
  } catch (OptionError const& e) {
    words.refuse(fmt::format("expected GROUP/LEN=ADDRESS: {}", e.what()));
  }
  return command;
}

}  // namespace Routing::Pim::Jpagent
