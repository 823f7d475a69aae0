// SPDX-License-Identifier: MIT
//
// What the macOS layer takes from a header that only a Mac has.

#pragma once

#include <stdint.h>

#if defined(__cplusplus)
extern "C" {
#endif

int _NSGetExecutablePath(char* buffer, uint32_t* size);

#if defined(__cplusplus)
}
#endif
