// SPDX-License-Identifier: Apache-2.0
// The scalar types that every layer shares.
#pragma once

#include <cstdint>
#include <limits>
#include <type_traits>

/// For what is in the path of every change: inlined even where the compiler would rather save space. A
/// build that counts branches defines it as nothing, or they would count again for each caller.
#ifndef VEL_INLINE
#define VEL_INLINE __attribute__((always_inline))
#endif

namespace Vel {

/// An unsigned number of 8 bits.
using U8 = std::uint8_t;
/// An unsigned number of 16 bits.
using U16 = std::uint16_t;
/// An unsigned number of 32 bits.
using U32 = std::uint32_t;
/// An unsigned number of 64 bits.
using U64 = std::uint64_t;

/// A point in time or a duration, in seconds. Points are on the clock of the timer wheel in use.
using Seconds = double;

/// The time that never comes: a timer set to it is disarmed.
inline constexpr Seconds never = std::numeric_limits<Seconds>::infinity();

/// Identifies an attribute within its type, for `onNotificationException` and the like.
using AttributeId = U32;

/// Zero-reference handling, as it is reported to `onNotificationException`.
inline constexpr AttributeId zeroReferencesId = 5;

/// The first attribute of every type; the next is one more. Lower numbers belong to the framework.
inline constexpr AttributeId firstAttributeId = 130;

/// How an accessor hands out a value: small trivial types by value, so that a caller's copy survives the
/// entity; the others by reference, valid until the attribute changes or the entity ends.
template <class T>
using Read = std::conditional_t<std::is_trivially_copyable_v<T> && sizeof(T) <= 32, T, T const&>;

}  // namespace Vel
