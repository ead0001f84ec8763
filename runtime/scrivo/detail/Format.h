// SPDX-License-Identifier: Apache-2.0
// The layout of a trace file, shared by writer and reader alone. Not part of the library's interface.
//
//     offset 0     FileHeader, in a page of its own
//     offset 4096  descriptors, one after the other, each DescriptorHeader + source + pieces
//     then         the ring of messages, then the ring of block timers: records, each RecordHeader +
//     arguments
//
// All numbers are in the byte order of the machine that wrote them. Descriptors and records start at
// multiples of 8. A record never spans the end of its ring: what is left there is filled by a record without
// identifier.
//
// Why a kill at any instruction leaves a readable file. Descriptors are only appended, and counted after
// their bytes are there. A ring lies between `tail` and `head`, which only grow: `tail` moves past a record
// before its bytes are overwritten, `head` moves past a record after its bytes are there, each by one store
// of 8 bytes. So what lies between them is whole at every instant. The same holds for a reader that copies
// the ring while it is written: whatever the head covered before the copy and the tail did not pass until
// after the copy is whole in the copy.
#pragma once

#include <cstring>

#include "runtime/scrivo/Kinds.h"

namespace Scrivo::Format {

using Vel::U16;

/// The line ends give away a file that went through a text conversion.
inline constexpr char magic[8] = {'S', 'c', 'r', 'i', 'v', 'o', '\r', '\n'};
inline constexpr U32 version = 1;
inline constexpr U32 byteOrder = 0x01020304;

/// Where the first area starts.
inline constexpr U64 headerBytes = 4096;

inline constexpr U64 minRingBytes = 2 * maxRecordBytes;
inline constexpr U64 maxRingBytes = U64(1) << 30;
inline constexpr U64 maxDescriptorAreaBytes = U64(1) << 26;

/// What a single descriptor can have.
inline constexpr U32 maxDescriptorBytes = 8192;

/// A part of the file.
struct Area {
  U64 offset;  // a multiple of 8
  U64 bytes;   // a multiple of 8
};

/// Positions in a ring, in bytes since the file was opened; the place in the ring is the position modulo the
/// ring's size.
struct RingState {
  U64 head;         // behind the newest whole record
  U64 tail;         // at the oldest whole record
  U64 overwritten;  // how many records the tail has passed
};

struct FileHeader {
  // Fixed when the file is made.
  char magic[8];
  U32 version;
  U32 byteOrder;
  U64 fileBytes;
  Area descriptors;
  Area rings[2];        // see ringIndex()
  U64 counterAtOpen;    // counts
  U64 monotonicAtOpen;  // nanoseconds, CLOCK_MONOTONIC
  U64 realtimeAtOpen;   // nanoseconds, CLOCK_REALTIME
  // Changed while the file is open, each by one store.
  U64 countsPerSecond;   // gets more exact the longer the file is open
  U64 descriptorCount;   // how many descriptors are whole
  U64 refusedCallSites;  // how many did not fit
  RingState ringStates[2];
};
static_assert(sizeof(FileHeader) == 168 && sizeof(FileHeader) <= headerBytes);

/// Messages, then block timers.
constexpr U32 ringIndex(EventKind kind) { return static_cast<U32>(kind) - 1; }

/// Followed by the source (U16 length, bytes) and `pieces` pieces, zero-padded to a multiple of 8.
struct DescriptorHeader {
  U32 bytes;  // of the whole descriptor
  U32 id;     // 1 for the first, then one more each
  U32 line;
  U8 kind;  // EventKind
  U8 zero;
  U16 pieces;
};
static_assert(sizeof(DescriptorHeader) == 16);

/// A piece is this byte followed by U16 length and the bytes, or an ArgumentKind and nothing more. A block
/// timer has two pieces: the signature and an integer, the elapsed counts.
inline constexpr U8 literalPiece = 0;

/// Followed by the arguments, zero-padded to a multiple of 8:
///   address  U8 length (0, 4 or 16), bytes in network order
///   string   U8 length, bytes
///   integer  8 bytes
struct RecordHeader {
  U32 bytes;  // of the whole record
  U32 id;     // of the descriptor; fillerId for a record that only fills the end of the ring
  U64 counter;
};
static_assert(sizeof(RecordHeader) == 16);

/// A filler can have 8 bytes, and then no counter.
inline constexpr U32 fillerId = 0;

template <class Number>
constexpr Number roundUp8(Number bytes) {
  return (bytes + 7) & ~Number(7);
}

}  // namespace Scrivo::Format
