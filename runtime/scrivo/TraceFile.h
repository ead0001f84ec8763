// SPDX-License-Identifier: Apache-2.0
// The trace file that this process writes.
//
//     Scrivo::TraceFile::open("/var/run/jpagent.trace", {.messageBytes = 4 << 20});
//     ...                           // SCRIVO_MESSAGE and SCRIVO_BLOCK_TIMER write from here on,
//     Scrivo::TraceFile::close();   // and cost one flag test from here on.
//
// A process that ends without closing loses nothing: the file is what has been written.
//
// The file is mapped memory. Somebody else may read, rename or remove it while it is open, and may put
// another in its place; but nothing can protect a mapped file from becoming shorter: if somebody truncates
// it, the next record sends the process SIGBUS, and to reserve its space beforehand does not help. So tools
// that empty a log in place must not be let at it (logrotate: no "copytruncate"). To rotate, have the process
// open the file anew:
//
//     std::filesystem::rename("/var/run/jpagent.trace", "/var/run/jpagent.trace.1");
//     // Tracing continues into the renamed file,
//     Scrivo::TraceFile::open("/var/run/jpagent.trace");
//     // and from here on into the new one.
//
// A process that would rather say what happened handles SIGBUS; the address is in contains() then.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "runtime/dova/IpGenAddr.h"
#include "runtime/scrivo/Kinds.h"
#include "runtime/scrivo/detail/Format.h"
#include "runtime/vel/Export.h"

namespace Scrivo {

/// Sizes of the parts of a trace file, in bytes; rounded up to a multiple of 8. The file has their sum and
/// one page, and never grows.
struct TraceOptions {
  U64 messageBytes = 1 << 20;       ///< The ring of messages: 8 KiB to 1 GiB.
  U64 timerBytes = 512 << 10;       ///< The ring of block timers: 8 KiB to 1 GiB.
  U64 descriptorBytes = 256 << 10;  ///< Up to 64 MiB; a call site needs 100 to 200.
};

namespace Detail {

/// A piece of a message that is written once, in the descriptor.
struct Literal {
  char const* text;
};

// The size and the bytes of an argument in a record. A literal has none.
constexpr U32 encodedBytes(Literal) { return 0; }
constexpr U32 encodedBytes(std::int64_t) { return 8; }
inline U32 encodedBytes(std::string_view text) {
  return 1 + static_cast<U32>(text.size() < maxStringBytes ? text.size() : maxStringBytes);
}
inline U32 encodedBytes(Dova::IpGenAddr const& address) {
  return 1 + static_cast<U32>(address.bytes().size());
}

inline U8* encode(U8* to, Literal) { return to; }
inline U8* encode(U8* to, std::int64_t number) {
  std::memcpy(to, &number, 8);
  return to + 8;
}
inline U8* encodeBytes(U8* to, void const* bytes, U32 size) {
  *to++ = static_cast<U8>(size);
  if (size != 0) std::memcpy(to, bytes, size);
  return to + size;
}
inline U8* encode(U8* to, std::string_view text) {
  return encodeBytes(to, text.data(), encodedBytes(text) - 1);
}
inline U8* encode(U8* to, Dova::IpGenAddr const& address) {
  return encodeBytes(to, address.bytes().data(), encodedBytes(address) - 1);
}

/// One ring of the mapped file, seen by its writer. Positions are kept here too, so that the writer never
/// depends on what someone else may have scribbled over them.
struct Ring {
  Format::RingState* shared;
  U8* bytes;
  U64 size;
  Format::RingState own;
  // Where head and tail are in the ring: a position modulo its size, without a division for each record.
  U64 headPlace = 0;
  U64 tailPlace = 0;
};

}  // namespace Detail

/// The file that this process traces into; at most one at a time.
class VEL_API TraceFile {
 public:
  /// Makes the file and directs all tracing of this process to it; a file that was open is closed. The file
  /// appears under its name when it is complete and replaces a regular file there, whose mode it takes over,
  /// so a reader of the old one is not disturbed; without one, only its owner may read it. A link is followed
  /// to its target. A device, a FIFO or a folder is refused. Its space is taken at once: a full disk is
  /// noticed here and not by the first record. See OutputFile.h.
  ///
  /// Open after the process has become a daemon: a child of fork(2) starts with no file open.
  ///
  /// Throws Vel::RangeException "<path>: <reason>", where the reason is a size that is out of range or the
  /// text of errno. Nothing was changed then: an earlier file is still open, a file of this name is still
  /// there.
  static TraceFile& open(std::string const& path, TraceOptions const& options = {});

  /// Ends tracing. Does nothing if no file is open.
  static void close() noexcept;

  /// The open file, valid until the next open() or close(); null if there is none.
  static TraceFile* current() { return current_; }

  /// Whether the address lies in the mapped file. Async-signal-safe.
  bool contains(void const* address) const {
    auto const distance =
        reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(header_);
    return distance < bytes_;
  }

  TraceFile(TraceFile const&) = delete;
  TraceFile& operator=(TraceFile const&) = delete;

  /// A number that no other file of this process has, and never 0. Identifiers are valid in one generation.
  U64 generation() const { return generation_; }

  /// Appends a descriptor, which MessageDescriptor composes, and gives it its identifier. Returns 0 if the
  /// area is full; the call site then writes nothing, and the file counts it.
  U32 registerDescriptor(std::span<U8> descriptor) noexcept;

  /// Counts a call site whose descriptor does not fit anywhere.
  void refuseDescriptor() noexcept;

  /// Appends a record to the ring of `kind`, overwriting as many of the oldest records as it needs room for.
  /// Does not allocate and does not fail.
  ///
  /// REQUIRES: `id` is of a descriptor of this kind in this file, and the arguments (IpGenAddr,
  /// std::string_view, std::int64_t) are of its kinds in its order. Literals may stand among them.
  template <class... Arguments>
  void record(EventKind kind, U32 id, U64 counter, Arguments const&... arguments) noexcept {
    Detail::Ring& ring = rings_[Format::ringIndex(kind)];
    U32 const bytes = Format::roundUp8(
        (static_cast<U32>(sizeof(Format::RecordHeader)) + ... + Detail::encodedBytes(arguments)));
    [[maybe_unused]] U8* to = reserve(ring, id, counter, bytes);
    ((to = Detail::encode(to, arguments)), ...);
    publish(ring, bytes);
  }

 private:
  TraceFile(U8* mapping, U64 bytes, TraceOptions const& options) noexcept;
  ~TraceFile();

  // Both act on the record that is being written. The reserved bytes begin behind the record's header.
  U8* reserve(Detail::Ring& ring, U32 id, U64 counter, U32 bytes) noexcept {
    if (ring.size - ring.headPlace < bytes) [[unlikely]]
      wrap(ring, bytes);
    if (ring.own.head + bytes - ring.own.tail > ring.size) advanceTail(ring, bytes);
    U8* const record = ring.bytes + ring.headPlace;
    // The record's last word may end in padding.
    std::memset(record + bytes - 8, 0, 8);
    Format::RecordHeader const header = {bytes, id, counter};
    std::memcpy(record, &header, sizeof header);
    return record + sizeof header;
  }
  void publish(Detail::Ring& ring, U32 bytes) noexcept {
    ring.headPlace += bytes;  // at the end of the ring for a moment: no record fits there
    ring.own.head += bytes;
    std::atomic_ref<U64>(ring.shared->head).store(ring.own.head, std::memory_order_release);
  }

  void wrap(Detail::Ring& ring, U64 needed) noexcept;
  void advanceTail(Detail::Ring& ring, U64 needed) noexcept;
  void refineClock() noexcept;

  static void abandonInChild() noexcept;

  static constinit TraceFile* current_;

  // Fixed at construction.
  Format::FileHeader* header_;
  U64 bytes_;
  U64 generation_;
  // Changed by registerDescriptor.
  std::span<U8> descriptorRoom_;
  U32 descriptorCount_ = 0;
  // Changed by record.
  Detail::Ring rings_[2];
};

}  // namespace Scrivo
