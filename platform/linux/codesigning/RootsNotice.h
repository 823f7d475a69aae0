// SPDX-License-Identifier: MIT
//
// Says on standard error that no client can be admitted because there are no roots. It is the first
// mistake that everybody makes, and to the client it looks like a bad signature. Under systemd,
// standard error is the journal.

#pragma once

#include <chrono>
#include <optional>

#include "support/Mutex.h"

namespace tarnvale::platform {

/// Safe from any thread.
class RootsNotice {
public:
    /// Says if no client will be admitted, and why.
    static void sayAtStart();

    /// Says if a client was turned away for want of roots, and why. Looks once a minute at most,
    /// however many clients come.
    void sayAfterRefusal() EXCLUDES(lock_);

private:
    bool isDue() EXCLUDES(lock_);

    support::Mutex lock_;
    std::optional<std::chrono::steady_clock::time_point> lookedAt_ GUARDED_BY(lock_);
};

}  // namespace tarnvale::platform
