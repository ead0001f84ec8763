// SPDX-License-Identifier: Apache-2.0
// From a trace file back to events.
//
//     Scrivo::TraceReader const reader("/var/run/jpagent.trace");
//     for (Scrivo::Event const& event : reader.events()) std::cout << event << "\n";
//     std::cout << reader.lost(Scrivo::EventKind::message) << " older messages were overwritten\n";
//
// The file may be open in another process or in this one, and may be what a killed process left. A reader is
// a snapshot: to follow a file, make another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <iterator>
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

/// The argument as it is in the text of its message.
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
  /// Such as "a record"; a string literal.
  char const* what;
};

class TraceReader;

/// The events or the descriptors of a reader, by position. Each is composed when it is asked for: a record of
/// 16 bytes can stand for a text of 8 KiB, so all of them together could take many times the memory that the
/// file has bytes. Valid as long as the reader is where it is.
template <class Item>
class TraceList {
 public:
  using value_type = Item;  ///< An event or a descriptor, by value.

  /// From the first to the last.
  class const_iterator {
   public:
    using value_type = Item;                             ///< What it gives.
    using reference = Item;                              ///< By value.
    using pointer = void;                                ///< There is nothing to point at.
    using difference_type = std::ptrdiff_t;              ///< Of positions.
    using iterator_category = std::input_iterator_tag;   ///< As far as values go.
    using iterator_concept = std::forward_iterator_tag;  ///< It can walk more than once.

    const_iterator() = default;
    /// At a position of a list.
    const_iterator(TraceList const& list, std::size_t index) : list_(list), index_(index) {}

    /// Composes the item.
    Item operator*() const { return list_[index_]; }
    /// The next one.
    const_iterator& operator++() {
      ++index_;
      return *this;
    }
    /// The next one, by the position before.
    const_iterator operator++(int) { return {list_, index_++}; }
    /// Whether both are at the same position. REQUIRES: of the same list.
    friend bool operator==(const_iterator const& a, const_iterator const& b) { return a.index_ == b.index_; }

   private:
    TraceList list_;
    std::size_t index_ = 0;
  };

  TraceList() = default;

  /// How many there are.
  std::size_t size() const { return size_; }
  /// Whether there are none.
  bool empty() const { return size_ == 0; }
  /// Composes the item at a position. REQUIRES: index < size().
  Item operator[](std::size_t index) const { return (reader_->*compose_)(index); }
  /// At the first.
  const_iterator begin() const { return {*this, 0}; }
  /// Behind the last.
  const_iterator end() const { return {*this, size_}; }

 private:
  friend TraceReader;
  using Compose = Item (TraceReader::*)(std::size_t) const;
  TraceList(TraceReader const& reader, std::size_t size, Compose compose)
      : reader_(&reader), size_(size), compose_(compose) {}

  TraceReader const* reader_ = nullptr;
  std::size_t size_ = 0;
  Compose compose_ = nullptr;
};

/// Reads whatever the bytes are: nothing in the file is believed before it was checked. Takes time in
/// proportion to the file's size, and at most a few times as much memory.
class VEL_API TraceReader {
 public:
  /// Reads the file. Throws Vel::RangeException "<path>: <reason>" if it is not a trace file, is longer than
  /// it says, or its header contradicts itself. Damage further inside is passed over and listed. Of a file
  /// that was cut off, what is whole is read.
  explicit TraceReader(std::string const& path);

  /// The whole records of both rings by time; equal times in the order of recording, messages first.
  TraceList<Event> events() const& { return {*this, records_.size(), &TraceReader::event}; }
  /// The same, of a reader that is about to go, so that `for (auto& e : TraceReader(path).events())` is
  /// sound. Takes the memory of all texts at once.
  std::vector<Event> events() &&;

  /// In the order of registration.
  TraceList<Descriptor> descriptors() const& { return {*this, sites_.size(), &TraceReader::descriptor}; }
  /// The same, of a reader that is about to go.
  std::vector<Descriptor> descriptors() &&;
  /// The call site of one of this reader's events.
  Descriptor descriptorOf(Event const& event) const;

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

  /// A call site whose descriptor is whole.
  struct Site {
    U32 id;
    U32 offset, bytes;  // in descriptorBytes_
    U32 firstKind, kinds;
    EventKind kind;
  };
  /// A whole record.
  struct Record {
    U64 counter;
    U32 order;  // of the file
    U32 ring : 1;
    U32 place : 31;  // in the ring, in units of 8 bytes
  };

  Event event(std::size_t index) const;
  Descriptor descriptor(std::size_t index) const;
  Site const* site(U32 id) const;

  // Of each area there may be less than it should have.
  void readDescriptors(Format::Area const& area, U64 count);
  void readRing(Format::Area const& area, Format::RingState const& state, EventKind kind);
  void readRecord(Format::Area const& area, U64 place, U32 bytes, EventKind kind);

  // Fixed by the header.
  U64 counterAtOpen_ = 0;
  U64 countsPerSecond_ = 0;
  U64 realtimeAtOpen_ = 0;
  // The areas, as far as they are there.
  std::vector<U8> descriptorBytes_;
  std::vector<U8> ringBytes_[2];
  // Filled area by area.
  std::vector<Site> sites_;
  std::vector<ArgumentKind> kinds_;  // of the arguments of all sites, one after the other
  std::vector<Record> records_;
  U64 lost_[2] = {};
  U64 refusedCallSites_ = 0;
  U64 missingBytes_ = 0;
  std::vector<Damage> damages_;
};

}  // namespace Scrivo
