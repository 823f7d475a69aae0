// SPDX-License-Identifier: MIT
//
// Ends waits in system calls whose length somebody else decides.

#pragma once

#include <ctime>

namespace tarnvale::platform {

/// While it exists, a signal interrupts its thread every few milliseconds.
///
/// Closing a connection also closes descriptors that its peer sent and nobody took. If such a
/// descriptor is the last of a lingering TCP socket, close() can block for as long as the peer
/// chose; the signal ends that wait.
class PeriodicInterrupt {
public:
    /// Gives the signal, SIGALRM, a handler that does nothing, for the whole process. Until then
    /// objects of this class have no effect.
    static void handleSignal();

    PeriodicInterrupt();
    PeriodicInterrupt(const PeriodicInterrupt&) = delete;
    PeriodicInterrupt& operator=(const PeriodicInterrupt&) = delete;
    ~PeriodicInterrupt();

private:
    timer_t timer_{};
    bool isSet_ = false;
};

}  // namespace tarnvale::platform
