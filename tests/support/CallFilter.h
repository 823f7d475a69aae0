// SPDX-License-Identifier: MIT
//
// Has the kernel treat one system call of a thread, and of what it starts, in another way.

#pragma once

#include <cstdint>

namespace tarnvale::test {

/// Installs a filter that gives this action (SECCOMP_RET_…) for the call of this number (`SYS_…`)
/// and allows all others. The flags are those of seccomp(2). Returns what that returns: with
/// SECCOMP_FILTER_FLAG_NEW_LISTENER a descriptor, or -1 with `errno`.
int filterCall(long number, std::uint32_t action, unsigned flags = 0);

}  // namespace tarnvale::test
