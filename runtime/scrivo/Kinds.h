// SPDX-License-Identifier: Apache-2.0
// What a trace consists of.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "runtime/vel/Export.h"
#include "runtime/vel/Types.h"

namespace Scrivo {

using Vel::U32;
using Vel::U64;
using Vel::U8;

/// The kinds of events; each has a ring of its own. The numbers are those in the file.
enum class EventKind : U8 { message = 1, blockTimer = 2 };

/// The kinds of arguments. The numbers are those in the file.
enum class ArgumentKind : U8 { address = 1, string = 2, integer = 3 };

/// "message", "block timer".
VEL_API std::ostream& operator<<(std::ostream& os, EventKind kind);

/// "address", "string", "integer".
VEL_API std::ostream& operator<<(std::ostream& os, ArgumentKind kind);

/// Longer string arguments are cut to this many bytes. An interface name or a state fits many times; a string
/// of any length would let one record wash out all others.
inline constexpr U32 maxStringBytes = 255;

/// The longest record. A statement whose arguments could need more does not compile.
inline constexpr U32 maxRecordBytes = 4096;

}  // namespace Scrivo
