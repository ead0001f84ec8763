// SPDX-License-Identifier: Apache-2.0
// The words of commands that speak to a speaker, in a conversation or in `jpagent run`. Used by the tables of
// the two alone.
#pragma once

#include "jpagent/simulate/CommandTable.h"
#include "jpagent/simulate/speaker/SpeakerCommands.h"

namespace Routing::Pim::Jpagent {

/// A delay in seconds, as the milliseconds that a Hello has.
U16 takeMilliseconds(Words& words, double most);
inline constexpr double mostMilliseconds = 65.535;
inline constexpr U32 most32 = 0xffffffff;

/// A setting of an interface and its value, or nothing if the next word is none.
SpeakerInterfaceCommand::Change takeSpeakerSetting(Words& words);
/// The settings, for help texts.
inline constexpr std::string_view speakerSettings =
    "hello S, hello-hold S, hello-delay S, interval S, hold S, override S, propagation S, priority N, "
    "tracking on|off, and the limits neighbors N, routes N, neighbor-routes N";

/// "interfaces", "neighbors", "upstream", "downstream" or "counters".
SpeakerSubject takeSpeakerSubject(Words& words);

// The parsers, each of what follows its word.

/// The RP of a (*,G) may be missing where commands are of a table of their own: it may be known.
Command speakerJoin(Words& words);
Command speakerLeave(Words& words);
Command speakerPrune(Words& words);
Command speakerUnprune(Words& words);

}  // namespace Routing::Pim::Jpagent
