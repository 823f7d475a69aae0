// SPDX-License-Identifier: MIT
//
// The service's life: it admits connections, counts them, and ends the process when it is idle or
// a new version is installed. Ending is normal: the system starts the service again on the next
// request.

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"
#include "core/service/ClientAdmission.h"
#include "platform/MainLoop.h"
#include "platform/Transport.h"
#include "support/Mutex.h"

namespace tarnvale {

/// Safe from any thread once started. Held by a shared pointer, so that a connection that ends late
/// can tell whether the listener is still there.
class HelperListener final : public platform::TransportDelegate,
                             public std::enable_shared_from_this<HelperListener> {
public:
    static constexpr std::chrono::seconds idleCheckPeriod{30};
    static constexpr std::chrono::seconds idleLimit{120};
    static constexpr std::chrono::milliseconds shutdownDelay{300};

    /// All three must live until the process exits.
    HelperListener(
        platform::Transport& transport, platform::MainLoop& loop, ClientAdmission& admission);

    /// Accepts connections, serves them with `exported` and runs the main loop; never returns.
    /// Throws `platform::TransportError` if the service can't be offered.
    [[noreturn]] void start(TarnvaleAdminHelperProtocol& exported);

    bool shouldAcceptNewConnection(platform::NewConnection& connection) override
        EXCLUDES(stateLock_);

    /// Restarts the idle clock.
    void touch() EXCLUDES(stateLock_);

    /// Calls `reply` at once and ends the process after `shutdownDelay`, even if other connections
    /// are open.
    void shutdownForUpgrade(const std::function<void()>& reply);

    /// Ends the process if no connection is open or being admitted, and the last activity is longer
    /// than `idleLimit` ago.
    void checkIdle() EXCLUDES(stateLock_);

private:
    class Admission;

    bool admit(platform::NewConnection& connection) EXCLUDES(stateLock_);
    void connectionEnded() EXCLUDES(stateLock_);

    platform::Transport& transport_;
    platform::MainLoop& loop_;
    ClientAdmission& admission_;

    support::Mutex stateLock_;
    /// Connections that were admitted and have not ended.
    std::int64_t activeConnections_ GUARDED_BY(stateLock_) = 0;
    /// Connections that are being looked at.
    std::int64_t admissionsUnderWay_ GUARDED_BY(stateLock_) = 0;
    /// Wall-clock time of the last admission, end or request.
    platform::MainLoop::Clock::time_point lastActivity_ GUARDED_BY(stateLock_);
};

}  // namespace tarnvale
