// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/RootsNotice.h"

#include <string>

#include <unistd.h>

#include "platform/linux/codesigning/Roots.h"
#include "support/SystemCalls.h"

namespace tarnvale::platform {
namespace {

constexpr std::chrono::minutes period{1};

void say(const std::string& what) {
    if (const auto problem = rootsProblem()) {
        // Lost if nobody takes it: the log is for what the helper does.
        static_cast<void>(support::writeAll(
            STDERR_FILENO, "TarnvaleAdminHelper: " + what + ": " + *problem + ".\n"));
    }
}

}  // namespace

void RootsNotice::sayAtStart() {
    say("No client will be admitted");
}

void RootsNotice::sayAfterRefusal() {
    if (isDue()) {
        say("A client was turned away");
    }
}

bool RootsNotice::isDue() {
    const auto now = std::chrono::steady_clock::now();
    const support::MutexLock guard(lock_);
    if (lookedAt_ && now - *lookedAt_ < period) {
        return false;
    }
    lookedAt_ = now;
    return true;
}

}  // namespace tarnvale::platform
