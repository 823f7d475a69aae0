// SPDX-License-Identifier: MIT

#include "platform/ServiceProcess.h"

namespace tarnvale::platform {

void prepareServiceProcess() {
    // The defaults suit: XPC takes care of its connections, the allocator of its memory.
}

void reportServing() {
    // launchd holds clients' messages until the listener takes them, and waits for nothing else.
}

}  // namespace tarnvale::platform
