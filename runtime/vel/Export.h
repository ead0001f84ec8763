// Symbols are hidden unless a declaration says VEL_API: what is not marked is no part of the library's ABI.
#pragma once

/// Marks what is part of the ABI.
#define VEL_API __attribute__((visibility("default")))
