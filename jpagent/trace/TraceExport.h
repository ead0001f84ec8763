// SPDX-License-Identifier: Apache-2.0
// A ring trace file in the forms in which one looks at it.
//
//     Scrivo::TraceReader const reader("/var/run/jpagent.trace");
//     exportText(reader, std::cout);    // for reading and grep
//     exportJson(reader, std::cout);    // for programs, one object a line
//     exportChrome(reader, std::cout);  // for Perfetto, chrome://tracing and docs/trace-viewer.html
#pragma once

#include <iosfwd>

#include "runtime/scrivo/TraceReader.h"

namespace Routing::Pim::Jpagent {

/// A line an event, as Scrivo::toText has it.
void exportText(Scrivo::TraceReader const& reader, std::ostream& out);

/// An object an event, each on its line. Times are seconds since the file was opened.
///
///     {"time":0.004127310,"kind":"message","source":"JoinPruneSm","line":378,
///      "text":"JoinPruneNeighborSm: Sending triggered joins/prunes to 10.0.0.2, Intf: eth0, Groups: 3",
///      "arguments":{"to":"10.0.0.2","Intf":"eth0","Groups":3}}
///     {"time":0.004131902,"kind":"block timer","source":"JoinPruneSm","line":368,
///      "text":"void Routing::Pim::JoinPruneNeighborSm::handleTriggeredTimerExpiry()","elapsed":0.000004585}
///
/// An argument is called by the words that stand before it in the text.
void exportJson(Scrivo::TraceReader const& reader, std::ostream& out);

/// The whole file as one object in the trace event format of Chrome. Blocks are slices of the track "engine".
/// A message is an instant on the track of the first address that it names, "10.0.0.2 on eth0", or, if it
/// names none, on the track "messages". Between the message that arms a timer and the one that fires, moves
/// or disarms it there is an asynchronous slice, "triggered timer of 10.0.0.2".
///
/// Time counts from the opening of the file. In a simulation it is the virtual time, and what is computed in
/// no virtual time takes as long as it really took.
void exportChrome(Scrivo::TraceReader const& reader, std::ostream& out);

}  // namespace Routing::Pim::Jpagent
