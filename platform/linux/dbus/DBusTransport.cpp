// SPDX-License-Identifier: MIT
//
// The transport on Linux: peer-to-peer D-Bus on a Unix stream socket, one thread for a connection.
// One more thread accepts, and does nothing that a peer could hold up.

#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include "platform/Transport.h"
#include "platform/linux/LibSystemd.h"
#include "platform/linux/dbus/DBusConnection.h"
#include "platform/linux/dbus/ListeningSocket.h"
#include "support/Mutex.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {
namespace {

using support::UniqueFd;

/// Counts the open connections, so that no user can take them all.
class ConnectionSlots {
public:
    static constexpr int maxForUser = 64;
    static constexpr int maxInAll = 256;

    bool take(uid_t uid) {
        const support::MutexLock lock(mutex_);
        if (inAll_ == maxInAll) {
            return false;
        }
        int& ofUser = byUser_[uid];
        if (ofUser == maxForUser) {
            return false;
        }
        ++ofUser;
        ++inAll_;
        return true;
    }

    void giveBack(uid_t uid) {
        const support::MutexLock lock(mutex_);
        --inAll_;
        const auto ofUser = byUser_.find(uid);
        if (--ofUser->second == 0) {
            byUser_.erase(ofUser);
        }
    }

private:
    support::Mutex mutex_;
    std::map<uid_t, int> byUser_ GUARDED_BY(mutex_);
    int inAll_ GUARDED_BY(mutex_) = 0;
};

std::optional<uid_t> userOf(int socket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return std::nullopt;
    }
    return credentials.uid;
}

class DBusTransport final : public Transport {
public:
    explicit DBusTransport(CodeSigning& codeSigning) : codeSigning_(codeSigning) {}

    void resume(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) override {
        LibSystemd::get();  // one that is missing is found out now, not at the first connection
        listening_ = openListeningSocket(passedSockets_);
        std::thread([this, &delegate, &exported] { acceptAll(delegate, exported); }).detach();
    }

    std::optional<uid_t> currentEffectiveUserID() const override {
        return effectiveUserIDOfRequest();
    }

private:
    /// One connection on its way to its thread, and then the thread's.
    struct Work {
        Work(
            DBusTransport& transport,
            TransportDelegate& itsDelegate,
            TarnvaleAdminHelperProtocol& itsExported,
            UniqueFd socket,
            uid_t uid)
            : delegate(itsDelegate),
              exported(itsExported),
              slots(transport.slots_),
              connection(std::move(socket), uid, transport.codeSigning_) {}
        Work(const Work&) = delete;
        Work& operator=(const Work&) = delete;
        ~Work() { slots.giveBack(connection.effectiveUserID()); }

        TransportDelegate& delegate;
        TarnvaleAdminHelperProtocol& exported;
        ConnectionSlots& slots;
        DBusConnection connection;
    };

    void acceptAll(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) {
        using namespace std::chrono_literals;
        while (true) {
            UniqueFd socket(
                ::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (socket) {
                try {
                    begin(delegate, exported, std::move(socket));
                } catch (...) {
                    // For want of memory this connection is closed.
                }
            } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
                pollfd waited{.fd = listening_.get(), .events = POLLIN, .revents = 0};
                ::poll(&waited, 1, -1);
            } else if (errno != EINTR && errno != ECONNABORTED) {
                // No descriptor or no memory is left; the connection still waits, so that asking
                // again at once would spin.
                std::this_thread::sleep_for(100ms);
            }
        }
    }

    /// Gives the connection a thread of its own; one for which there is no room is closed.
    void begin(
        TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported, UniqueFd socket) {
        const auto uid = userOf(socket.get());
        if (!uid || !slots_.take(*uid)) {
            return;
        }
        std::unique_ptr<Work> work;
        try {
            work = std::make_unique<Work>(*this, delegate, exported, std::move(socket), *uid);
        } catch (...) {
            slots_.giveBack(*uid);
            return;
        }
        pthread_attr_t attributes;
        if (::pthread_attr_init(&attributes) != 0) {
            return;
        }
        ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        pthread_t thread{};
        if (::pthread_create(&thread, &attributes, runWork, work.get()) == 0) {
            work.release();  // NOLINT(bugprone-unused-return-value): the thread owns it now
        }
        ::pthread_attr_destroy(&attributes);
    }

    static void* runWork(void* argument) noexcept {
        const std::unique_ptr<Work> work(static_cast<Work*>(argument));
        try {
            work->connection.run(work->delegate, work->exported);
        } catch (...) {
            // What fails here, for want of memory, is this connection alone.
        }
        return nullptr;
    }

    CodeSigning& codeSigning_;
    int passedSockets_ = takePassedSockets();
    UniqueFd listening_;
    ConnectionSlots slots_;
};

}  // namespace

std::unique_ptr<Transport> makeTransport(CodeSigning& codeSigning) {
    return std::make_unique<DBusTransport>(codeSigning);
}

}  // namespace tarnvale::platform
