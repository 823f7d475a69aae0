// SPDX-License-Identifier: MIT
//
// The service's life: it admits connections, counts them, and ends the process when nobody has used
// it for a while or when a new version is installed. The system starts it again on the next
// request, so that ending is the normal thing to do.

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
/// finds the listener alive or gone.
class HelperListener final : public platform::TransportDelegate,
                             public std::enable_shared_from_this<HelperListener> {
public:
    static constexpr std::chrono::seconds idleCheckPeriod{30};
    static constexpr std::chrono::seconds idleLimit{120};
    static constexpr std::chrono::milliseconds shutdownDelay{300};

    /// The services must outlive the process.
    HelperListener(
        platform::Transport& transport, platform::MainLoop& loop, ClientAdmission& admission);

    /// Takes connections, serves them with `exported` and hands the main thread over for good.
    /// Throws `platform::TransportError` when the service cannot be offered.
    [[noreturn]] void start(TarnvaleAdminHelperProtocol& exported);

    bool shouldAcceptNewConnection(platform::NewConnection& connection) override
        EXCLUDES(stateLock_);

    /// Restarts the idle clock.
    void touch() EXCLUDES(stateLock_);

    /// Calls `reply` at once and ends the process a moment later, whatever else is going on.
    void shutdownForUpgrade(const std::function<void()>& reply);

    /// Ends the process when no connection is open and the last activity is long enough ago.
    void checkIdle() EXCLUDES(stateLock_);

private:
    void connectionEnded() EXCLUDES(stateLock_);

    platform::Transport& transport_;
    platform::MainLoop& loop_;
    ClientAdmission& admission_;

    support::Mutex stateLock_;
    /// Connections admitted and not yet ended.
    std::int64_t activeConnections_ GUARDED_BY(stateLock_) = 0;
    /// Wall-clock time of the last admission, end or request.
    platform::MainLoop::Clock::time_point lastActivity_ GUARDED_BY(stateLock_);
};

}  // namespace tarnvale
