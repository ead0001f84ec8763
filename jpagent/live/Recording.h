// SPDX-License-Identifier: Apache-2.0
// Recordings of `jpagent run`: the inputs of a LiveSpeaker as a conversation, which `jpagent simulate`
// performs (see Performance.h).
//
//     # Recorded by jpagent run.
//     live seed 7 hash 9 random 1 clock 100.25 time 1795413600000000 json
//     at 100.25 given eth0
//     at 100.25 kernel eth0 mtu 1500 running 10.0.0.1/24
//     at 100.5 command join (10.9.0.1,239.1.1.1) via 10.0.0.2
//     at 101 packet eth0 from 10.0.0.2 to 224.0.0.13 ttl 1 2000dfff...
//     at 102.75 expire
//     sent done 102.7501
//
// A line `at` is an input and the clock at it; a line `sent` is what became of the next packet and the clock
// after it. Each line is written before it has an effect. What the process has printed is compared with what
// comes out of the performance: without a rule nothing is expected here, since a process that is killed could
// not write what it had still to write. Under a rule (`simulate --rewrite`) it is kept.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "jpagent/live/LiveSpeaker.h"

namespace Routing::Pim::Jpagent::Live {

/// The story and the first command.
std::vector<std::string> recordingHead(Seconds now, LiveSettings const& settings);

// Inputs, without their time, and the result of sending.
std::string kernelInput(std::string_view name, KernelInterface const& kernel);
std::string packetInput(Speaker::Incoming const& packet, std::span<U8 const> bytes);
std::string commandInput(std::string_view line, Asker asker);
std::string policyInput(std::vector<std::string> const& rps, std::vector<std::string> const& denied);
std::string resultInput(SendResult const& result, Seconds now);

/// "command", "client", "configuration", in the order of the enumeration.
inline constexpr std::array<std::string_view, 3> askerNames = {"command", "client", "configuration"};

/// Two digits for each byte; "-" for none.
std::string hexOf(std::span<U8 const> bytes);
std::string hexOf(std::string_view text);

/// Whether a conversation is a recording: its first command is `live`.
bool isRecording(std::string_view text);

}  // namespace Routing::Pim::Jpagent::Live
