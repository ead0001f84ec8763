// SPDX-License-Identifier: Apache-2.0
// A run of `jpagent trace`, from the ring trace file to the exit status.
#pragma once

#include <string>

namespace Routing::Pim::Jpagent {

enum class TraceForm { text, json, chrome };

/// Prints a trace file. Returns the exit status. Throws Scrivo::TraceError if the file cannot be read.
int runTrace(std::string const& file, TraceForm form);

}  // namespace Routing::Pim::Jpagent
