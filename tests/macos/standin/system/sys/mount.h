// SPDX-License-Identifier: MIT
//
// What the shared code takes from a Mac's header besides what this system's has: a path's volume.

#pragma once

#include_next <sys/mount.h>

#define MNAMELEN 1024

#if defined(__cplusplus)
extern "C" {
#endif

struct statfs {
    char f_mntonname[MNAMELEN];
};

int statfs(const char* path, struct statfs* volume);

#if defined(__cplusplus)
}
#endif
