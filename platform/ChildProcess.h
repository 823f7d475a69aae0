// SPDX-License-Identifier: MIT
//
// Keeps our descriptors from child processes, which each system does in its own way.

#pragma once

#include <spawn.h>

namespace tarnvale::platform {

/// Leaves the child only descriptors 0 to 2, no matter which others this process has. Adds to
/// `flags`, the spawn attributes', what that takes. Returns 0 or an error number.
int keepOtherDescriptors(posix_spawn_file_actions_t& actions, short& flags);

}  // namespace tarnvale::platform
