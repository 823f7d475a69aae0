// SPDX-License-Identifier: MIT

#include "platform/ServiceProcess.h"

#include <malloc.h>

#include "platform/linux/LibSystemd.h"
#include "platform/linux/PeriodicInterrupt.h"

namespace tarnvale::platform {

void prepareServiceProcess() {
    PeriodicInterrupt::handleSignal();

    // Set explicitly, the threshold stays. By itself the allocator would learn from one large
    // request to keep as much memory for the next.
    constexpr int defaultTrimThreshold = 131072;  // bytes
    ::mallopt(M_TRIM_THRESHOLD, defaultTrimThreshold);
}

void reportServing() {
    // Does nothing where systemd has not asked for it. A report that is lost makes systemd start
    // the helper again. Children may inherit the request: systemd takes the report from this
    // process alone.
    LibSystemd::get().sd_notify(0, "READY=1");
}

}  // namespace tarnvale::platform
