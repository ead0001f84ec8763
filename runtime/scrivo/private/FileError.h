// SPDX-License-Identifier: Apache-2.0
// The refusal of a file, as its text is everywhere: "<path>: <reason>".
#pragma once

#include <string>
#include <system_error>

#include "runtime/vel/Exception.h"

namespace Scrivo {

/// Throws Vel::RangeException.
[[noreturn]] inline void refuseFile(std::string const& path, std::string const& reason) {
  throw Vel::RangeException(path + ": " + reason);
}

/// The same with the system's text for an `errno`.
[[noreturn]] inline void refuseFile(std::string const& path, int error) {
  refuseFile(path, std::generic_category().message(error));
}

}  // namespace Scrivo
