// SPDX-License-Identifier: Apache-2.0
// Assertions that hold in every build type: an invariant that is broken must not forward packets. Not part of
// the library's interface.
#pragma once

// As <assert.h> declares it, which does so only without NDEBUG; hence no [[noreturn]], which must come first.
extern "C" __attribute__((noreturn)) void __assert_fail(char const* expression, char const* file,
                                                        unsigned line, char const* function) noexcept(true);

/// Prints "<program>: <source>:<line>: <function>: Assertion `<expression>' failed." and aborts, unless the
/// expression holds. `source` is the name that the code is known by in the field, not a path.
#define VEL_ASSERT(source, expression) VEL_ASSERT_AS(source, expression, #expression)

/// The same with a text of its own, for an expression that reads better by another name.
#define VEL_ASSERT_AS(source, expression, text) \
  (static_cast<bool>(expression) ? void(0) : __assert_fail(text, source, __LINE__, __PRETTY_FUNCTION__))
