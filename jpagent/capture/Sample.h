// SPDX-License-Identifier: Apache-2.0
// A small capture to try the agent on: every kind of entry over IPv4 and IPv6, Hellos, VLAN tags, and two
// broken messages among the good ones. It is the same bytes every time.
#pragma once

#include <string>

namespace Routing::Pim::Jpagent {

/// Writes the capture. Throws OutputError if the file cannot be written.
void writeSample(std::string const& path);

}  // namespace Routing::Pim::Jpagent
