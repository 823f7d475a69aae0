// SPDX-License-Identifier: MIT

#include "platform/ChildProcess.h"

#include <unistd.h>

namespace tarnvale::platform {

int keepOtherDescriptors(posix_spawn_file_actions_t& actions, short& flags) {
    // With this flag the child gets only the descriptors that the file actions mention.
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
    return ::posix_spawn_file_actions_addinherit_np(&actions, STDIN_FILENO);
}

}  // namespace tarnvale::platform
