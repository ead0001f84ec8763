// SPDX-License-Identifier: Apache-2.0
// The packet manager of the random worlds: one script for the library and for the model, so that whatever
// they do differently is not the manager's doing.
#pragma once

#include <optional>
#include <stdexcept>

#include "tests/world/Operation.h"

namespace Routing::Pim::Worlds {

struct ManagerState {
  Temper temper;
  std::vector<Operation> meanwhile;
  U32 untilMeanwhile = 0;
  U32 messages = 0;  // in the current operation

  void temperIs(Operation const& operation) {
    temper = operation.temper;
    meanwhile = operation.meanwhile;
    untilMeanwhile = operation.temper.message;
  }
};

/// An entry as the packet manager sees it.
struct Entry {
  Addr group;
  Kind kind;
  Addr source;
  bool join;  // of wildcards
};

inline std::string toText(Entry const& entry) {
  auto const& names = Names::get();
  static constexpr char const* kinds[] = {"j ", "p ", "rj ", "rp "};
  std::string text =
      entry.kind == Kind::wildcard ? (entry.join ? "wj " : "wp ") : kinds[static_cast<U32>(entry.kind)];
  return text.append(names.text(entry.source)).append(1, ',').append(names.text(entry.group));
}

struct ManagerFault : std::runtime_error {
  ManagerFault() : std::runtime_error("the manager failed") {}
};

/// Serves one raise of the record's count. A side says what is seen, and does what is to be done:
///
///   side.seen(record)        "eth0 to 10.0.0.2, hold 210, ..."
///   side.message(record)     a handle of the message, and
///   side.data(message)       of its data; held while the message is served
template <class Side, class Record>
void serve(Side& side, Record const& record) {
  ManagerState& state = side.manager;
  Temper const temper = state.temper;
  bool const spent = ++state.messages > mostMessages;
  auto const message = side.message(record);
  auto const data = side.data(message);
  std::vector<Entry> const entries = side.entries(data);
  std::string text = "send " + side.seen(record);
  for (auto const& entry : entries) text.append("; ").append(toText(entry));
  side.note(text);

  std::vector<Operation> meanwhile;
  if (!state.meanwhile.empty() && state.untilMeanwhile-- == 0) meanwhile.swap(state.meanwhile);
  auto const moment = [&](Temper::Moment now) {
    if (temper.moment == now)
      for (auto const& operation : meanwhile) side.perform(operation);
  };
  if (temper.throws == Temper::Throws::first) throw ManagerFault();
  moment(Temper::Moment::first);
  JoinPruneMessage::Report report;
  U32 taken = 0;
  for (auto const& entry : entries) {
    if (taken >= temper.take || spent) break;
    if (!side.periodic(data) && !side.takeOut(data, entry)) continue;
    if (taken < temper.filtered)
      ++report.filteredSources;
    else if (taken < U32{temper.filtered} + temper.suppressed)
      ++report.suppressedSources;
    else
      ++report.sources;
    if (++taken == 1) moment(Temper::Moment::middle);
  }
  if (temper.tidy) side.removeEmptyGroups(data);
  side.advance(temper.cost);
  switch (spent ? Temper::Lie::honest : temper.lie) {
    case Temper::Lie::nothing:
      report = {};
      break;
    case Temper::Lie::one:
      report = {1, 0, 0};
      break;
    case Temper::Lie::filtered:
      report = {0, 0, 2};
      break;
    case Temper::Lie::suppressed:
      report = {0, 2, 0};
      break;
    case Temper::Lie::huge:
      report = {0xffffffff, 0xffffffff, 0xffffffff};
      break;
    default:
      break;
  }
  side.reportIs(message, report);
  moment(Temper::Moment::last);
  if (temper.throws == Temper::Throws::last) throw ManagerFault();
}

}  // namespace Routing::Pim::Worlds
