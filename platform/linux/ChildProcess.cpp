// SPDX-License-Identifier: MIT

#include "platform/ChildProcess.h"

#include <unistd.h>

namespace tarnvale::platform {

int keepOtherDescriptors(posix_spawn_file_actions_t& actions, short& /*flags*/) {
    return ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
}

}  // namespace tarnvale::platform
