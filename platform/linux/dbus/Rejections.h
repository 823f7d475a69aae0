// SPDX-License-Identifier: MIT
//
// How often each user's programs have been turned away of late. Checking a program takes the
// processor, and turning it away a line of the log; whoever has had many in a row isn't even
// checked.

#pragma once

#include <chrono>
#include <map>

#include <sys/types.h>

#include "support/Mutex.h"

namespace tarnvale::platform {

/// Safe from any thread.
class Rejections {
public:
    using Clock = std::chrono::steady_clock;

    /// How many may follow each other at once, and how long it takes until one is forgotten.
    static constexpr int maxAtOnce = 20;
    static constexpr std::chrono::seconds forgottenAfter{1};

    void add(uid_t user, Clock::time_point now = Clock::now()) EXCLUDES(mutex_);

    /// Whether the user has had too many.
    bool areTooMany(uid_t user, Clock::time_point now = Clock::now()) const EXCLUDES(mutex_);

private:
    mutable support::Mutex mutex_;
    /// When each user's last rejection will be forgotten; each is, one after the other.
    std::map<uid_t, Clock::time_point> forgottenAt_ GUARDED_BY(mutex_);
};

}  // namespace tarnvale::platform
