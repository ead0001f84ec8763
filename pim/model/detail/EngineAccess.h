// SPDX-License-Identifier: Apache-2.0
// The way of the engine to what a class keeps for it. Not part of the library's interface.
#pragma once

namespace Routing::Pim {

/// What a T shows to the engine and to the packet manager, and to no agent: shortcuts that are fast because
/// they leave out what makes an operation safe to call. T has this as a friend, and what is in it is written
/// in a header in private/, which is not installed:
///
///     if (EngineAccess<Packet::JoinPruneGroupData>::joinsAlone(*group)) ...
template <class T>
struct EngineAccess;

}  // namespace Routing::Pim
