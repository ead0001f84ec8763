// SPDX-License-Identifier: Apache-2.0
// Level-filtered text traces.
//
// A trace handle is found by its name and is off until levels are switched on, one by one:
//
//   Vel::TraceHandle::find("Pim::JoinPrune").levelIs(7, true);
//   Vel::traceSinkIs([](Vel::TraceLine const& line) { syslog(LOG_DEBUG, "%s", line.text.c_str()); });
//
// Levels by custom are those of TraceLevel. A line that is
// off costs the test of a flag: nothing is formatted. The exception is the coverage stream, which is for
// exercising every formatting path in a test: while one is set, lines that are off are formatted too and go
// there alone.
#pragma once

#include <functional>
#include <sstream>
#include <string>
#include <string_view>

#include "runtime/vel/Export.h"
#include "runtime/vel/Types.h"

namespace Vel {

/// The levels by custom. A handle has those from 0 to `most`.
namespace TraceLevel {
inline constexpr U32 error = 1;     ///< What went wrong.
inline constexpr U32 event = 2;     ///< What changed for the program: a neighbor came, a message was sent.
inline constexpr U32 detail = 4;    ///< How an event was dealt with.
inline constexpr U32 activity = 7;  ///< What is done with each entry.
inline constexpr U32 entry = 8;     ///< That a handler was entered.
inline constexpr U32 most = 30;     ///< The highest.
}  // namespace TraceLevel

/// The switches of one part of the program. One flag test answers for a line that is not wanted.
class VEL_API TraceHandle {
 public:
  /// The handle of that name, made when it is first asked for; it lives as long as the process.
  static TraceHandle& find(std::string_view name);

  /// The name that it is found by.
  std::string const& name() const { return name_; }

  /// Switches one level on or off. REQUIRES: level <= 30; a higher one throws InvalidArgumentException.
  void levelIs(U32 level, bool on);
  /// Whether a level is on.
  bool level(U32 level) const { return level <= TraceLevel::most && (levels_ >> level & 1) != 0; }
  /// All levels off.
  void levelsDel();

  /// Whether a line of that level must be formatted at all. A level above 30 is never on.
  bool wanted(U32 level) const {
    return (levels_ & ((level <= TraceLevel::most ? 1u << level : 0) | coverageBit)) != 0;
  }

 private:
  friend void coverageStreamIs(std::ostream* stream);
  friend struct TraceRegistry;

  static constexpr U32 coverageBit = 1u << (TraceLevel::most + 1);

  explicit TraceHandle(std::string_view name) : name_(name) {}

  std::string name_;
  U32 levels_ = 0;  // bit n is level n, so that one test answers for both ways to want a line
};

/// One line, as it is handed to the sink.
struct TraceLine {
  std::string_view handle;    ///< The name of the handle.
  std::string_view context;   ///< "<unknown>" for every line of this library.
  std::string text;           ///< What the line says.
  U32 level;                  ///< Of the line.
  bool enabled;               ///< False for a line that only the coverage stream gets.
  std::string_view source;    ///< The name that the code is known by in the field.
  int line;                   ///< In the source file.
  std::string_view function;  ///< Its short name.
};

/// Where lines go. The texts of a TraceLine are valid during the call.
using TraceSink = std::function<void(TraceLine const&)>;

/// Where enabled lines go, for the whole process. An empty sink restores the default, standard error. What a
/// sink throws is swallowed: a trace must not change what the traced code does.
VEL_API void traceSinkIs(TraceSink sink);

/// Where lines go that the levels filter out; null (the default) for nowhere. REQUIRES: the stream outlives
/// this.
VEL_API void coverageStreamIs(std::ostream* stream);

/// Delivers a composed line.
VEL_API void traceHelper(TraceHandle& handle, std::string_view context, std::ostringstream const& text,
                         U32 level, bool enabled, std::string_view source, int line,
                         std::string_view function);

/// The framework's own handle, "Vel". Its level 1 is on from the start: a contained error is never silent.
VEL_API TraceHandle& frameTrace();

namespace Detail {
/// Composes a line in a stream that shows numbers with 12 digits, and delivers it. Apart from where it is
/// called, so that a line that is off costs its surroundings neither registers nor stack.
VEL_API void composeTrace(TraceHandle& handle, U32 level, std::string_view source, int line,
                          char const* function,
                          void (*compose)(std::ostream& text, char const* function, void const* pieces),
                          void const* pieces);

template <class Pieces>
[[gnu::cold, gnu::noinline]] void trace(TraceHandle& handle, U32 level, std::string_view source, int line,
                                        char const* function, Pieces const& pieces) {
  composeTrace(
      handle, level, source, line, function,
      [](std::ostream& text, char const* name, void const* p) {
        (*static_cast<Pieces const*>(p))(text, name);
      },
      &pieces);
}
}  // namespace Detail

}  // namespace Vel

/// Writes the stream expression `pieces` as one line. Nothing in it is evaluated while the level is off. What
/// it throws, for want of memory at worst, is swallowed with the line: a trace must not change what the
/// traced code does. `pieces` runs in a function of its own: it writes `velFunction`, not `__func__`, for the
/// name of the traced one.
#define VEL_TRACE(handle, traceLevel, source, function, pieces)                                         \
  do {                                                                                                  \
    ::Vel::TraceHandle& velHandle = (handle);                                                           \
    if (velHandle.wanted(traceLevel)) [[unlikely]]                                                      \
      ::Vel::Detail::trace(                                                                             \
          velHandle, traceLevel, source, __LINE__, function,                                            \
          [&](std::ostream& velText, [[maybe_unused]] char const* velFunction) { velText << pieces; }); \
  } while (false)
