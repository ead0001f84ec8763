// SPDX-License-Identifier: Apache-2.0
// Trace messages.
//
//     SCRIVO_MESSAGE("JoinPruneSm", "Sending triggered joins/prunes to ", neighbor, ", Intf: ", intf.name(),
//                    ", Groups: ", groups.size());
//
// Literals and arguments may stand in any order and number. `char const*` and character arrays are literals:
// they are read when the statement runs for the first time in a file, and must be the same ever after. A text
// that varies is an argument: pass it as std::string or std::string_view.
#pragma once

#include <concepts>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "runtime/dova/IpGenAddr.h"
#include "runtime/scrivo/CycleCounter.h"
#include "runtime/scrivo/Kinds.h"
#include "runtime/scrivo/MessageDescriptor.h"
#include "runtime/scrivo/TraceFile.h"
#include "runtime/vel/Export.h"

/// Writes a message if a trace file is open, else evaluates none of the pieces. `source` is the name that the
/// code is known by in the field. Pieces are
///
///   literals   `char const*` and character arrays, fixed for the statement (and the template instance)
///   addresses  Dova::IpGenAddr
///   strings    std::string, std::string_view and what converts to it; cut to maxStringBytes
///   integers   any integer, but no character type. Kept: an unsigned number of 2^63 or more reads negative,
///              since all integers are signed in the file
///
/// A piece may itself trace, and may open or close trace files.
#define SCRIVO_MESSAGE(source, ...)                               \
  do {                                                            \
    if (::Scrivo::TraceFile::current() != nullptr) {              \
      static ::Scrivo::CallSite scrivoCallSite(source, __LINE__); \
      scrivoCallSite.message(__VA_ARGS__);                        \
    }                                                             \
  } while (false)

namespace Scrivo {

namespace Detail {

template <class T>
concept CharacterType = std::same_as<T, char> || std::same_as<T, wchar_t> || std::same_as<T, char8_t> ||
    std::same_as<T, char16_t> || std::same_as<T, char32_t>;

// What a piece of a statement is: one overload for each row of the table above.
inline Literal asPiece(char const* literal) { return {literal}; }
inline Dova::IpGenAddr const& asPiece(Dova::IpGenAddr const& address) { return address; }
template <std::integral T>
requires(!CharacterType<T>) std::int64_t asPiece(T number) { return static_cast<std::int64_t>(number); }
template <class T>
requires(std::convertible_to<T const&, std::string_view> &&
         !std::convertible_to<T const&, char const*>) std::string_view asPiece(T const& text) {
  return text;
}

inline char const* describe(Literal literal) { return literal.text; }
inline ArgumentKind describe(Dova::IpGenAddr const&) { return ArgumentKind::address; }
inline ArgumentKind describe(std::string_view) { return ArgumentKind::string; }
inline ArgumentKind describe(std::int64_t) { return ArgumentKind::integer; }

template <class Piece>
inline constexpr U32 mostEncodedBytes = 0;
template <>
inline constexpr U32 mostEncodedBytes<std::int64_t> = 8;
template <>
inline constexpr U32 mostEncodedBytes<std::string_view> = 1 + maxStringBytes;
template <>
inline constexpr U32 mostEncodedBytes<Dova::IpGenAddr> = 1 + 16;

}  // namespace Detail

/// The static part of a statement that traces: it registers its descriptor once in every file and knows the
/// identifier. Lives as long as the program; the macros make it.
class VEL_API CallSite {
 public:
  /// REQUIRES: `source` outlives the call site.
  constexpr CallSite(char const* source, U32 line) : source_(source), line_(line) {}

  CallSite(CallSite const&) = delete;
  CallSite& operator=(CallSite const&) = delete;

  /// Writes a message. The pieces are of the same kinds in every call. Does nothing if no file is open.
  template <class... Pieces>
  void message(Pieces const&... pieces) {
    write(Detail::asPiece(pieces)...);
  }

  /// The identifier of this block timer in `file`, or 0 if the file has no room for it.
  U32 timerId(TraceFile& file, char const* signature) {
    return idIn(file, EventKind::blockTimer, Detail::Literal{signature}, std::int64_t());
  }

 private:
  template <class... Pieces>
  void write(Pieces const&... pieces) {
    static_assert(
        ((sizeof(Format::RecordHeader) + 7) + ... + Detail::mostEncodedBytes<Pieces>) <= maxRecordBytes,
        "a record has room for 15 strings or 509 integers");
    // Evaluating a piece may have closed the file.
    TraceFile* const file = TraceFile::current();
    if (file == nullptr) return;
    U32 const id = idIn(*file, EventKind::message, pieces...);
    if (id != 0) file->record(EventKind::message, id, cycleCounter(), pieces...);
  }

  template <class... Pieces>
  U32 idIn(TraceFile& file, EventKind kind, Pieces const&... pieces) {
    if (generation_ != file.generation()) {
      MessageDescriptor descriptor(file, source_, line_, kind);
      (descriptor << ... << Detail::describe(pieces));
      id_ = descriptor.finish();
      generation_ = file.generation();
    }
    return id_;
  }

  // Fixed at construction.
  char const* source_;
  U32 line_;
  // Changed by the first use in a file. 0 is no file, and no room in the file.
  U32 id_ = 0;
  U64 generation_ = 0;
};

}  // namespace Scrivo
