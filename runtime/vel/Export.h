// Symbols are hidden unless a declaration says VEL_API: what is not marked is no part of the library's ABI.
#pragma once

#define VEL_API __attribute__((visibility("default")))
