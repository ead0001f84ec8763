// SPDX-License-Identifier: Apache-2.0
// How jpagent ends when it cannot go on: with a line that names the file and the system's reason, and status
// 2; never by a signal of its own making, and never as if all was well.
//
// The engine survives a request for memory that fails: it contains what its callbacks throw, and what was
// lost may never be noticed. That is right for a router, and wrong for a program that is to print all of
// something. So the first request that fails ends this program there and then, before anything is thrown.
#pragma once

#include <string>
#include <string_view>

namespace Routing::Pim::Jpagent {

/// Exit statuses. Of a run that did not do what was asked for, it is `cannotDo`.
inline constexpr int allFine = 0, somethingRefused = 1, somethingDiffers = 1, cannotDo = 2;

/// Tells on standard error why a run cannot be completed, in one line. Returns `cannotDo`.
int cannot(std::string text);

/// From here on, a write to a closed pipe or beyond a limit is an error and no signal, a trace file that
/// somebody else truncates ends the program with a line, so does an assertion that does not hold (a
/// conversation can break the engine's rules), and being told to end removes unfinished files first. Opens
/// what is missing of the three standard streams, so that no file takes the place of one. Memory that runs
/// out is seen to before main().
void endWithReasons();

/// What the program is at work on, to be named if memory runs out: the first of its files.
void subjectIs(std::string_view path) noexcept;
/// The trace file that is written, or read, to be named if it is truncated.
void traceFileIs(std::string_view path) noexcept;

/// Ends the program with what it was at work on and the text of an errno, after what is printed so far.
/// Removes unfinished files. Async-signal-safe.
[[noreturn]] void endAtOnce(int error) noexcept;

}  // namespace Routing::Pim::Jpagent
