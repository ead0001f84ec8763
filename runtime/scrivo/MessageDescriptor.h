// SPDX-License-Identifier: Apache-2.0
// What a trace file knows about a call site.
//
//     U32 const id = (MessageDescriptor(file, "JoinPruneSm", __LINE__)
//                     << "Sending to " << ArgumentKind::address << ", Groups: " <<
//                     ArgumentKind::integer).finish();
//     file.record(EventKind::message, id, cycleCounter(), neighbor, std::int64_t(3));
//
// SCRIVO_MESSAGE does this for a statement. By hand it serves code that composes its messages from tables.
#pragma once

#include <string_view>

#include "runtime/scrivo/Kinds.h"
#include "runtime/scrivo/TraceFile.h"
#include "runtime/vel/Export.h"

namespace Scrivo {

/// Composes a descriptor, piece by piece in the order of the text, and registers it. All texts are copied.
class VEL_API MessageDescriptor {
 public:
  /// `source` is the name that the code is known by in the field, not a path. The file must stay open until
  /// finish().
  MessageDescriptor(TraceFile& file, std::string_view source, U32 line,
                    EventKind kind = EventKind::message) noexcept;

  /// A piece of text that is the same in every message. Null is none.
  MessageDescriptor& operator<<(char const* literal) noexcept;

  /// The place of an argument.
  MessageDescriptor& operator<<(ArgumentKind kind) noexcept;

  /// Registers the descriptor. Returns its identifier, or 0 if the file has no room for it or it has more
  /// than Format::maxDescriptorBytes; the call site stays silent then. REQUIRES: called once, and last.
  [[nodiscard]] U32 finish() noexcept;

 private:
  void append(void const* bytes, std::size_t size) noexcept;
  void appendText(std::string_view text) noexcept;

  // Fixed at construction.
  TraceFile& file_;
  // Changed by each piece.
  Format::DescriptorHeader header_ = {};
  bool tooLong_ = false;
  U32 used_ = sizeof(Format::DescriptorHeader);
  U8 bytes_[Format::maxDescriptorBytes];
};

}  // namespace Scrivo
