// SPDX-License-Identifier: Apache-2.0
// The framework's exceptions. They reach the caller of the mutator; inside a notification the delivery
// catches them and hands them to the reactor's `onNotificationException`.
#pragma once

#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "runtime/vel/Export.h"
#include "runtime/vel/Types.h"

namespace Vel {

/// An operation that the framework refuses. Nothing was changed. `what()` is the bare text.
class VEL_API RangeException : public std::range_error {
 public:
  using std::range_error::range_error;
  ~RangeException() override;
};

/// An argument that can never be right, whatever the state: a null element, a time that is not a number.
class VEL_API InvalidArgumentException : public RangeException {
 public:
  using RangeException::RangeException;
  ~InvalidArgumentException() override;
};

/// Throws RangeException "null ValidPtr".
[[noreturn]] VEL_API void throwNullPtr();

/// Throws RangeException "attempting to modify a const instance".
[[noreturn]] VEL_API void throwConstInstance();

/// Throws InvalidArgumentException "null <parameter> parameter to mutator for <mutator> not allowed" and a
/// double-quote character. Kept: the quote has no partner, and log filters in the field match on it.
[[noreturn]] VEL_API void throwNullParameter(std::string_view parameter, std::string_view mutator);

/// Throws InvalidArgumentException "<name> cannot be NaN" or "<name> cannot be negative".
[[noreturn]] VEL_API void throwNoDuration(std::string_view name, Seconds seconds);

/// Throws like throwNoDuration() unless the time, in seconds, is a duration: not NaN, and not less than 0.
inline void requireDuration(std::string_view name, Seconds seconds) {
  if (!(seconds >= 0)) [[unlikely]]
    throwNoDuration(name, seconds);
}

/// Throws RangeException "<mutator> of <type>: <what> is there already".
[[noreturn]] VEL_API void throwPresent(std::string_view mutator, std::string const& type,
                                       std::string const& what);

/// Throws RangeException "Reinstantiating the pointer interface where constructor parameter attribute
/// <parameter> has a different value of <given> than the current value of <current>".
[[noreturn]] VEL_API void throwReinstantiation(std::string_view parameter, std::string const& given,
                                               std::string const& current);

/// Throws as above unless `given` equals `current`. For finding an element that exists with other parameters.
template <class Value>
void requireSameParameter(std::string_view parameter, Value const& given, Value const& current) {
  if (given == current) return;
  std::ostringstream givenText, currentText;
  givenText << given;
  currentText << current;
  throwReinstantiation(parameter, givenText.str(), currentText.str());
}

}  // namespace Vel
