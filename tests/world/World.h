// SPDX-License-Identifier: Apache-2.0
// A small world twice: around the library and around the model. Each operation is done to both, and then
// everything that can be seen must be the same: what was traced and sent, and the whole state.
//
// What is where in this folder:
//
//   Names       the addresses and interfaces of a world
//   Operation   what can be done to it
//   Model       the library told a second time; short enough to be checked by reading
//   World       the library in its surroundings, and the comparison (Library.cpp does the operations)
//   Manager     the packet manager, the same one for both
//   Random      operations at random, by profile
//   Shrink      a failing sequence becomes a short one
//   Paste       a sequence becomes a conversation for conversation_runner (tests/conversations/own)
//
// Sequences that are not at random are in SmallWorldTest.cpp.
#pragma once

#include <functional>
#include <map>
#include <memory>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "runtime/vel/Trace.h"
#include "tests/world/Model.h"

namespace Routing::Pim::Worlds {

/// The library and what it needs around it.
///
/// REQUIRES: one at a time in a process, since traces and the random generator are the process's.
class Library {
 public:
  Library();
  ~Library();
  Library(Library const&) = delete;
  Library& operator=(Library const&) = delete;

  void perform(Operation const& operation);

  /// Whether the library traces.
  void tracesIs(bool on);
  /// Traces events and errors, but not each handler and each entry.
  void fewTraces();

  // --- The manager's side

  using RecordPtr = Vel::Ptr<IO::MessageInfo>;
  using MessagePtr = Vel::Ptr<JoinPruneMessage>;
  using DataPtr = Vel::Ptr<Packet::JoinPruneData>;

  MessagePtr message(RecordPtr const& record) const { return record->joinPruneMessage(); }
  DataPtr data(MessagePtr const& message) const { return message->joinPruneData(); }
  std::string seen(RecordPtr const& record) const;
  std::vector<Entry> entries(DataPtr const& data) const;
  bool periodic(DataPtr const& data) const { return data->periodic(); }
  bool takeOut(DataPtr const& data, Entry const& entry);
  void removeEmptyGroups(DataPtr const& data);
  void reportIs(MessagePtr const& message, JoinPruneMessage::Report const& report) {
    message->reportIs(report);
  }
  void note(std::string text) { happened({0, std::move(text)}); }
  void advance(Seconds cost) { now += cost; }

  // --- What there is

  Seconds now = 0;
  Vel::Ptr<Zanth::TimerWheel> const wheel;
  Vel::Ptr<JoinPruneStatus> const status;
  Vel::Ptr<Status> const pim;
  Vel::Ptr<JoinPruneMessageInfo> const rxJoin, rxPrune;
  Vel::Ptr<IO::MessageInfo> const channel;
  Vel::Ptr<IO::PamManager> const pam;
  Vel::Ptr<Intf> intf[Names::intfs];
  Vel::Ptr<JoinPruneMessageSm> engine;
  std::vector<Vel::Ptr<JoinPruneNeighborSm>> held;
  std::vector<Event> events;
  std::function<void(Event const&)> listener;  // hears of each event at once
  ManagerState manager;
  U32 expiries = 0;

 private:
  class Transmitter;
  class Filter;
  class Rps;
  class RecordWatch;

  void happened(Event event) {
    if (listener) listener(event);
    events.push_back(std::move(event));
  }
  DataPtr find(Operation const& operation) const;
  void waitUntil(Seconds end);

  Vel::Ptr<Filter> const filter_;
  Vel::Ptr<Rps> const rps_;
  Vel::Ptr<Transmitter> const transmitter_;
  Vel::Ptr<RecordWatch> const joinWatch_, pruneWatch_;
};

class World {
 public:
  /// Lines for each handler and each entry are most of what there is to compare; without them, the library
  /// takes the shorter ways that are taken when nothing listens.
  enum class Traces { all, few, none };
  explicit World(Traces traces = Traces::all) : traces_(traces) { setTraces(); }

  /// Does the operation to both. Empty if both did the same, otherwise what differs.
  std::string step(Operation const& operation);

  /// Does it to both without looking, as a step that was looked at before.
  void repeat(Operation const& operation);

  /// The operation stopped the process, in a copy of this one; this world is not continued.
  bool stopped() const { return stopped_; }

  Model const& model() const { return model_; }
  Library& library() { return library_; }

 private:
  std::string eventsDiffer();
  bool sameEvent(Event const& expected, Event const& got);
  std::string stateDiffers();
  std::string stopDiffers(Operation const& operation, std::string const& expression);
  std::string differs(Model::Machine const& expected, JoinPruneNeighborSm const& got);
  void keepFewTraces();
  void setTraces();
  void forget();

  Traces const traces_;
  Model model_;
  Library library_;
  bool stopped_ = false;
  U32 steps_ = 0;
  std::vector<std::pair<std::string, std::string>> names_;  // of objects: in the model, in the library
};

}  // namespace Routing::Pim::Worlds
