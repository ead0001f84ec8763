// From a trace file back to events.
//
//     Scrivo::TraceReader const reader("/var/run/jpagent.trace");
//     for (Scrivo::Event const& event : reader.events()) std::cout << event << "\n";
//     std::cout << reader.lost(Scrivo::EventKind::message) << " older messages were overwritten\n";
//
// The file may be open in another process or in this one, and may be what a killed process left. A reader is
// a snapshot: to follow a file, make another.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "runtime/dova/IpGenAddr.h"
#include "runtime/scrivo/Kinds.h"
#include "runtime/vel/Export.h"

namespace Scrivo {

namespace Format {
struct Area;
struct RingState;
}  // namespace Format

/// An argument of a message, with the alternatives in the order of ArgumentKind.
using Argument = std::variant<Dova::IpGenAddr, std::string, std::int64_t>;

/// The kind of an argument.
VEL_API ArgumentKind kindOf(Argument const& argument);

/// The argument as it stands in the text of its message.
VEL_API std::string toText(Argument const& argument);

/// A piece of a descriptor: a literal or the place of an argument.
using Piece = std::variant<std::string, ArgumentKind>;

/// A call site, as the file knows it.
struct Descriptor {
  U32 id;                     ///< 1 for the first that was registered.
  EventKind kind;             ///< Whether it writes messages or times a block.
  std::string source;         ///< The name that the code is known by in the field.
  U32 line;                   ///< In the source file.
  std::vector<Piece> pieces;  ///< Of a block timer: the signature and an integer.
};

/// The descriptor with its arguments by kind: "JoinPruneSm 12: Sending to <address>, Groups: <integer>".
VEL_API std::string toText(Descriptor const& descriptor);
/// The text of a descriptor.
VEL_API std::ostream& operator<<(std::ostream& os, Descriptor const& descriptor);

/// Something that happened.
struct Event {
  U64 counter;                      ///< Cycle counter; of a block timer: at the end of the block.
  double seconds;                   ///< Since the file was opened.
  EventKind kind;                   ///< A message or a block timer.
  U32 descriptor;                   ///< The id of its Descriptor.
  std::string source;               ///< The name that the code is known by in the field.
  U32 line;                         ///< In the source file.
  std::string text;                 ///< The message with its arguments, or the block timer's signature.
  std::vector<Argument> arguments;  ///< Of a block timer: the elapsed counts.
  U64 elapsed;                      ///< Counts; 0 for a message.
  double elapsedSeconds;            ///< The same in seconds.
};

/// One line, whatever the arguments contain: control characters and backslashes are escaped as in C.
///
///   "0.004127310 JoinPruneSm 12: Sending to 10.0.0.2"
///   "0.004131902 JoinPruneSm 11: [10420 counts, 0.000004585 s] void JoinPruneSm::sendTriggered()"
VEL_API std::string toText(Event const& event);
/// The line of an event.
VEL_API std::ostream& operator<<(std::ostream& os, Event const& event);

/// Something in the file that could not be read.
struct Damage {
  /// Where it begins in the file, in bytes.
  U64 offset;
  /// Such as "a record"; lives for ever.
  char const* what;
};

/// Reads whatever the bytes are: nothing in the file is believed before it was checked.
class VEL_API TraceReader {
 public:
  /// Reads the file. Throws Vel::RangeException "<path>: <reason>" if it is not a trace file, is longer than
  /// it says, or its header contradicts itself. Damage further inside is passed over and listed. Of a file that
  /// was cut off, what is whole is read.
  explicit TraceReader(std::string const& path);

  /// The whole records of both rings by time; equal times in the order of recording, messages first.
  /// A reader that is about to go gives them away, so `for (auto& e : TraceReader(path).events())` is sound.
  std::vector<Event> const& events() const& { return events_; }
  /// The same, of a reader that is about to go.
  std::vector<Event> events() && { return std::move(events_); }

  /// In the order of registration.
  std::vector<Descriptor> const& descriptors() const& { return descriptors_; }
  /// The same, of a reader that is about to go.
  std::vector<Descriptor> descriptors() && { return std::move(descriptors_); }

  /// How many events of this kind were overwritten by newer ones.
  U64 lost(EventKind kind) const;

  /// How many call sites write nothing because the file has no room for their descriptors.
  U64 refusedCallSites() const { return refusedCallSites_; }

  /// The descriptors and records that were damaged, area by area. Where the size of one is, the rest of its
  /// area cannot be found any more, and all of that counts as one. None in a file that only Scrivo wrote to.
  std::vector<Damage> const& damages() const { return damages_; }
  /// How many of them there are.
  U64 damaged() const { return damages_.size(); }

  /// By how much the file is shorter than it says. 0 unless it was cut off.
  U64 missingBytes() const { return missingBytes_; }

  /// The rate of the cycle counter.
  U64 countsPerSecond() const { return countsPerSecond_; }
  /// The time from which events count: CLOCK_REALTIME, in nanoseconds.
  U64 realtimeAtOpen() const { return realtimeAtOpen_; }

 private:
  class Source;

  // Of each area there may be less than it should have. The offset of a record is that in the file.
  void readDescriptors(Format::Area const& area, std::vector<U8> const& bytesThere, U64 count);
  void readRing(Format::Area const& area, std::vector<U8> const& ring, Format::RingState const& state,
                EventKind kind);
  void readRecord(U64 offset, U8 const* record, U32 bytes, EventKind kind);
  void sortByTime();

  // Fixed by the header.
  U64 counterAtOpen_ = 0;
  U64 countsPerSecond_ = 0;
  U64 realtimeAtOpen_ = 0;
  // Filled area by area.
  std::vector<Descriptor> descriptors_;
  std::vector<Event> events_;
  U64 lost_[2] = {};
  U64 refusedCallSites_ = 0;
  U64 missingBytes_ = 0;
  std::vector<Damage> damages_;
};

}  // namespace Scrivo
