// SPDX-License-Identifier: MIT
//
// What systems do each in their own way to keep descriptors from child processes.

#pragma once

#include <spawn.h>

namespace tarnvale::platform {

/// Has the child get no descriptor beyond 0 to 2, whatever was inherited or opened by whom, and
/// adds what that takes to the spawn attributes' `flags`. Returns 0 or an error number.
int keepOtherDescriptors(posix_spawn_file_actions_t& actions, short& flags);

}  // namespace tarnvale::platform
