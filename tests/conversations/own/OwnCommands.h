// SPDX-License-Identifier: Apache-2.0
// The commands that conversations of the tests have beside those of jpagent: what breaks the rules for
// agents, and packet managers that misbehave (a temper).
//
//     interface NAME ... [stay] [again]          changed without coming up; told of again
//     neighbor ADDRESS again                     told of again
//     CHANNEL TARGET filled [all] join ROUTE...  groups that arrive with the entries in them
//     CHANNEL TARGET again [all] [join ROUTE...] entries, or all groups, that are told of without a change
//     temper off | on [take N] [filtered N] [suppressed N] [tidy] [report SOURCES SUPPRESSED FILTERED]
//            [throws MOMENT] [cost S] [MOMENT of N do COMMAND ; COMMAND...]
//
// A temper takes so many entries per message, calls some of them filtered or suppressed, removes empty
// groups, reports what is not true, throws, takes its time, or performs commands at the first, middle or last
// moment of its message number N. It prints
//
//     0.100 taken on eth0, upstream 10.0.0.2, triggered, hold 210, of 2: 1 source, 0 suppressed, 0 filtered
//     0.100   join (10.9.0.1,239.1.1.1)
#pragma once

#include "jpagent/simulate/CommandTable.h"

namespace Routing::Pim::Jpagent {

/// The rows of the table.
OwnForms ownForms();

struct OwnInterfaceCommand final : ExtraCommand {
  InterfaceCommand command;
  bool stay = false;   // As it is, up or down.
  bool again = false;  // Told of without a change.

  void perform(Simulation& simulation) const override;
};
struct NeighborAgainCommand final : ExtraCommand {
  IpGenAddr address;

  void perform(Simulation& simulation) const override;
};
struct OwnDataCommand final : ExtraCommand {
  DataCommand command;
  bool filled = false;  // Or again.
  bool all = false;     // Told of as a whole instead of one by one.

  void perform(Simulation& simulation) const override;
};
/// Another packet manager in place of the real one. Nothing in it for the real one. Among
/// its commands is no `wait`, and no other that puts such a manager in place.
struct TemperCommand final : ExtraCommand {
  enum class Moment : U8 { none, first, middle, last };
  using Report = Packet::JoinPruneMessage::Report;

  bool on = false;
  U32 take = ~U32{0}, filtered = 0, suppressed = 0;
  bool tidy = false;
  std::optional<Report> report;  // What it says it did, if that is not the truth.
  Moment throws = Moment::none;
  Seconds cost = 0;
  Moment moment = Moment::none;  // When in the message `message`, counted from 1, `commands` are performed.
  U32 message = 0;
  std::vector<std::string> commands;

  void perform(Simulation& simulation) const override;
};

}  // namespace Routing::Pim::Jpagent
