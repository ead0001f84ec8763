// SPDX-License-Identifier: Apache-2.0
// Tracing into a file that outlives its writer.
//
// When a join is missing at three in the morning, the question is what the machines did in the second before.
// Scrivo answers it at a price that one can pay all the time: a record is the arguments of a message in
// binary, a few tens of nanoseconds, and nothing but one flag test while no trace file is open. The file
// never grows, and since it is mapped memory it can be read while the process runs and after it was killed.
//
//     Scrivo::TraceFile::open("/var/run/jpagent.trace");
//     ...
//     void JoinPruneSm::sendTriggered(Dova::IpGenAddr const& neighbor, Dova::IntfId const& intf, int groups)
//     {
//       SCRIVO_BLOCK_TIMER("JoinPruneSm", __PRETTY_FUNCTION__);
//       SCRIVO_MESSAGE("JoinPruneSm", "Sending triggered joins/prunes to ", neighbor, ", Intf: ",
//       intf.name(),
//                      ", Groups: ", groups);
//       ...
//
//     Scrivo::TraceReader const reader("/var/run/jpagent.trace");
//     for (Scrivo::Event const& event : reader.events()) std::cout << event << "\n";
//
//     0.004127310 JoinPruneSm 12: Sending triggered joins/prunes to 10.0.0.2, Intf: eth0, Groups: 3
//     0.004131902 JoinPruneSm 11: [10420 counts, 0.000004585 s] void JoinPruneSm::sendTriggered(...)
//
// How it hangs together. A statement owns a CallSite. The first time it runs with a file open, the call site
// writes a descriptor (source, line, literal pieces, kinds of the arguments) and keeps the identifier; from
// then on only the arguments are written. Messages and block timers go to a ring each, so that timers, which
// are many, do not wash out messages, which are few. The reader puts both in order of time.
//
// Which file of this folder does what:
//
//   Scrivo.h             what code that traces includes
//   Kinds.h              kinds of events and arguments
//   CycleCounter.h       the time stamp of a record
//   OutputFile.h         a file that gets its name when it is complete
//   private/FileError.h  the text of a refusal of a file
//   TraceFile.h          the open file and the writing of records
//   MessageDescriptor.h  what a call site tells the file about itself, once
//   CallSite.h           SCRIVO_MESSAGE
//   BlockTimer.h         SCRIVO_BLOCK_TIMER
//   TraceReader.h        from the file back to events; code that only traces does not need it
//
// and what these headers need and no program includes:
//
//   detail/Format.h      the layout of the file, and why a kill at any instruction leaves it readable
//
// Scrivo is for one thread, like the engine it serves: nothing here locks. Readers may be other processes.
#pragma once

#include "runtime/scrivo/BlockTimer.h"
#include "runtime/scrivo/CallSite.h"
#include "runtime/scrivo/TraceFile.h"
