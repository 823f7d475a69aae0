// SPDX-License-Identifier: MIT

#include "core/service/HelperListener.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>
#include <thread>
#include <utility>

#include "core/base/HelperLog.h"
#include "core/base/HelperVersion.h"
#include "platform/ServiceProcess.h"

namespace tarnvale {

/// Counts an admission for as long as it exists.
class HelperListener::Admission {
public:
    explicit Admission(HelperListener& listener) : listener_(listener) {
        const support::MutexLock lock(listener_.stateLock_);
        ++listener_.admissionsUnderWay_;
    }
    Admission(const Admission&) = delete;
    Admission& operator=(const Admission&) = delete;
    ~Admission() {
        const support::MutexLock lock(listener_.stateLock_);
        --listener_.admissionsUnderWay_;
    }

private:
    HelperListener& listener_;
};

HelperListener::HelperListener(
    platform::Transport& transport, platform::MainLoop& loop, ClientAdmission& admission)
    : transport_(transport), loop_(loop), admission_(admission), lastActivity_(loop.now()) {}

void HelperListener::start(TarnvaleAdminHelperProtocol& exported) {
    transport_.resume(*this, exported);
    loop_.repeat(idleCheckPeriod, [weak = weak_from_this()] {
        if (const auto listener = weak.lock()) {
            listener->checkIdle();
        }
    });
    helperLog(
        "Helper " + helperVersionString() + " listening on com.brackwen.tarnvale.adminhelper.");
    platform::reportServing();
    loop_.run();
    std::abort();  // g++ ignores [[noreturn]] on a virtual function
}

bool HelperListener::shouldAcceptNewConnection(platform::NewConnection& connection) {
    const Admission underWay(*this);
    return admit(connection);
}

bool HelperListener::admit(platform::NewConnection& connection) {
    if (!admission_.isAllowedClient(connection.peer()) ||
        !connection.setCodeSigningRequirement(admission_.clientRequirement())) {
        helperLog(
            "Rejected XPC client pid=" + std::to_string(connection.peer().pid) +
            " uid=" + std::to_string(connection.effectiveUserID()) +
            ": not Tarnvale or its service signed by " + std::string(teamIdentifier) + ".");
        return false;
    }

    // Made first: nothing may fail between counting the connection and installing its handler.
    std::function<void()> ended = [weak = weak_from_this()] {
        if (const auto listener = weak.lock()) {
            listener->connectionEnded();
        }
    };
    const auto now = loop_.now();
    {
        const support::MutexLock lock(stateLock_);
        if (activeConnections_ == std::numeric_limits<std::int64_t>::max()) {
            std::abort();
        }
        ++activeConnections_;
        lastActivity_ = now;
    }
    connection.setInvalidationHandler(std::move(ended));
    return true;
}

void HelperListener::touch() {
    const auto now = loop_.now();
    const support::MutexLock lock(stateLock_);
    lastActivity_ = now;
}

void HelperListener::connectionEnded() {
    const auto now = loop_.now();
    const support::MutexLock lock(stateLock_);
    activeConnections_ = std::max<std::int64_t>(activeConnections_ - 1, 0);
    lastActivity_ = now;
}

void HelperListener::checkIdle() {
    const auto now = loop_.now();
    {
        const support::MutexLock lock(stateLock_);
        if (activeConnections_ != 0 || admissionsUnderWay_ != 0 ||
            now - lastActivity_ <= idleLimit) {
            return;
        }
    }
    // Whoever connects from here on is the next process's client.
    if (!transport_.retire()) {
        return;
    }
    helperLog("Idle; exiting. launchd will relaunch on the next request.");
    loop_.exitProcess(EXIT_SUCCESS);
}

void HelperListener::shutdownForUpgrade(const std::function<void()>& reply) {
    helperLog("Shutdown requested for upgrade; exiting so launchd re-execs the new binary.");
    try {
        reply();
    } catch (...) {
        // The client has gone and needs no reply.
    }
    try {
        loop_.runAfter(shutdownDelay, [&loop = loop_] { loop.exitProcess(EXIT_SUCCESS); });
        return;
    } catch (...) {
        // Without memory for it, this thread waits and ends the process itself.
    }
    std::this_thread::sleep_for(shutdownDelay);
    loop_.exitProcess(EXIT_SUCCESS);
}

}  // namespace tarnvale
