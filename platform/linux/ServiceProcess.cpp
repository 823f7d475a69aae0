// SPDX-License-Identifier: MIT

#include "platform/ServiceProcess.h"

#include <malloc.h>

#include "platform/linux/PeriodicInterrupt.h"

namespace tarnvale::platform {

void prepareServiceProcess() {
    PeriodicInterrupt::handleSignal();

    // Set explicitly, the threshold stays. By itself the allocator would learn from one large
    // request to keep as much memory for the next.
    constexpr int defaultTrimThreshold = 131072;  // bytes
    ::mallopt(M_TRIM_THRESHOLD, defaultTrimThreshold);
}

}  // namespace tarnvale::platform
