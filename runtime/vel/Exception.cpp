// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Exception.h"

#include <cmath>

namespace Vel {

RangeException::~RangeException() = default;
InvalidArgumentException::~InvalidArgumentException() = default;

void throwNullPtr() { throw RangeException("null ValidPtr"); }

void throwConstInstance() { throw RangeException("attempting to modify a const instance"); }

void throwNullParameter(std::string_view parameter, std::string_view mutator) {
  std::ostringstream text;
  text << "null " << parameter << " parameter to mutator for " << mutator << " not allowed\"";
  throw InvalidArgumentException(text.str());
}

void throwNoDuration(std::string_view name, Seconds seconds) {
  throw InvalidArgumentException(std::string(name) +
                                 (std::isnan(seconds) ? " cannot be NaN" : " cannot be negative"));
}

void throwPresent(std::string_view mutator, std::string const& type, std::string const& what) {
  throw RangeException(std::string(mutator) + " of " + type + ": " + what + " is there already");
}

void throwReinstantiation(std::string_view parameter, std::string const& given, std::string const& current) {
  std::ostringstream text;
  text << "Reinstantiating the pointer interface where constructor parameter attribute " << parameter
       << " has a different value of " << given << " than the current value of " << current;
  throw RangeException(text.str());
}

}  // namespace Vel
