// SPDX-License-Identifier: Apache-2.0
// What command lines and conversations say about groups and traces, in the domain's types. Texts that do not
// parse throw OptionError with one line that quotes them.
//
// Which file of this folder does what:
//
//   Options.h          groups and trace levels from text
//   PrefixTable.h      what is said of prefixes, and which of them have an address
//   Output.h           files and standard output, which know why writing failed
//   Ending.h           the line and the status with which jpagent ends
//   Progress.h         how far long work is, on a terminal
//   ScrivoRecording.h  the ring trace file of a run
//   RingMessages.h     what a simulation writes into it
//   SendKind.h         the three sets of joins and prunes of an upstream target
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "jpagent/common/PrefixTable.h"

namespace Routing::Pim::Jpagent {

using Vel::U32;

class OptionError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// Prefixes of groups, each with its RP; the longest one that has a group decides for it.
class RpTable {
 public:
  /// From "239.0.0.0/8=10.0.0.1". The prefix must have groups, the RP must be of its family and unicast, and
  /// no prefix may come twice.
  void add(std::string_view text);

  /// The RP of a group, or `otherwise` if no prefix has it.
  IpGenAddr rp(IpGenAddr const& group, IpGenAddr const& otherwise) const;

 private:
  PrefixTable<IpGenAddr> rows_;
};

/// From "239.0.0.0/8", or a group alone.
IpGenPrefix groupPrefixFromText(std::string_view text);

/// Trace levels, each from 1 to 30, once and in ascending order: "1,2,7", "1-8", "1-2,7".
std::vector<U32> traceLevelsFromText(std::string_view text);

}  // namespace Routing::Pim::Jpagent
