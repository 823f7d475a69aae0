// SPDX-License-Identifier: MIT
//
// What the macOS layer takes from a Mac's header besides what this system's has.

#pragma once

#include_next <spawn.h>

#define POSIX_SPAWN_CLOEXEC_DEFAULT 0x4000

#if defined(__cplusplus)
extern "C" {
#endif

int posix_spawn_file_actions_addinherit_np(posix_spawn_file_actions_t* actions, int fd);

#if defined(__cplusplus)
}
#endif
