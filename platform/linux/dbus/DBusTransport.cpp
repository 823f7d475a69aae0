// SPDX-License-Identifier: MIT
//
// The transport on Linux: peer-to-peer D-Bus on a Unix stream socket, with one thread for each
// connection. One more thread accepts, and does nothing that a peer could hold up.

#include <atomic>
#include <cerrno>
#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include <poll.h>
#include <sys/socket.h>

#include "platform/Transport.h"
#include "platform/linux/LibSystemd.h"
#include "platform/linux/PeriodicInterrupt.h"
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

    /// One user's place for one connection.
    class Slot {
    public:
        Slot(ConnectionSlots& slots, uid_t uid) : slots_(&slots), uid_(uid) {}
        Slot(Slot&& other) noexcept
            : slots_(std::exchange(other.slots_, nullptr)), uid_(other.uid_) {}
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;
        ~Slot() {
            if (slots_ != nullptr) {
                slots_->giveBack(uid_);
            }
        }

    private:
        ConnectionSlots* slots_;
        uid_t uid_;
    };

    std::optional<Slot> take(uid_t uid) {
        const support::MutexLock lock(mutex_);
        if (inAll_ == maxInAll) {
            return std::nullopt;
        }
        int& ofUser = byUser_[uid];
        if (ofUser == maxForUser) {
            return std::nullopt;
        }
        ++ofUser;
        ++inAll_;
        return std::optional<Slot>(std::in_place, *this, uid);
    }

private:
    void giveBack(uid_t uid) {
        const support::MutexLock lock(mutex_);
        --inAll_;
        const auto ofUser = byUser_.find(uid);
        if (--ofUser->second == 0) {
            byUser_.erase(ofUser);
        }
    }

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

/// One connection and its slot.
struct OpenConnection {
    OpenConnection(ConnectionSlots::Slot itsSlot, UniqueFd socket, uid_t uid, CodeSigning& signing)
        : slot(std::move(itsSlot)), connection(std::move(socket), uid, signing) {}

    ConnectionSlots::Slot slot;  ///< outlives the connection: taken until everything is closed
    DBusConnection connection;
};

/// Owns each open connection until the thread that runs it is done with it. Safe from any thread.
class OpenConnections {
public:
    using Place = std::list<OpenConnection>::iterator;

    template <typename... Arguments>
    Place add(Arguments&&... arguments) {
        std::list<OpenConnection> added;
        added.emplace_back(std::forward<Arguments>(arguments)...);
        const support::MutexLock lock(mutex_);
        connections_.splice(connections_.begin(), added);
        return connections_.begin();
    }

    bool isEmpty() {
        const support::MutexLock lock(mutex_);
        return connections_.empty();
    }

    /// Destroys the connection without the lock: that may take long.
    void end(Place place) {
        std::list<OpenConnection> ended;
        const support::MutexLock lock(mutex_);
        ended.splice(ended.begin(), connections_, place);
    }

private:
    support::Mutex mutex_;
    std::list<OpenConnection> connections_ GUARDED_BY(mutex_);
};

class DBusTransport final : public Transport {
public:
    explicit DBusTransport(CodeSigning& codeSigning) : codeSigning_(codeSigning) {}

    void resume(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) override {
        LibSystemd::get();  // if it is missing, that is found out now, not at the first connection
        listening_ = openListeningSocket(passedSockets_);
        std::thread([this, &delegate, &exported] { acceptAll(delegate, exported); }).detach();
    }

    /// The thread that accepts says that it is at it before it looks whether it may. So one of the
    /// two sees what the other has said.
    bool retire() override {
        isRetired_ = true;
        if (isAccepting_ || !open_.isEmpty()) {
            isRetired_ = false;
        }
        return isRetired_;
    }

    std::optional<uid_t> currentEffectiveUserID() const override {
        return effectiveUserIDOfRequest();
    }

private:
    void acceptAll(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) {
        using namespace std::chrono_literals;
        while (true) {
            const int error = acceptOne(delegate, exported);
            if (error == EAGAIN || error == EWOULDBLOCK) {
                pollfd waited{.fd = listening_.get(), .events = POLLIN, .revents = 0};
                ::poll(&waited, 1, -1);
            } else if (error != 0 && error != EINTR && error != ECONNABORTED) {
                // No descriptor or no memory is left, or the process is about to end. The
                // connection still waits, so asking again at once would spin.
                std::this_thread::sleep_for(100ms);
            }
        }
    }

    /// Returns 0 or why there was nothing to take, an errno.
    int acceptOne(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) {
        isAccepting_ = true;
        int error = ECANCELED;
        if (!isRetired_) {
            UniqueFd socket(
                ::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            error = socket ? 0 : errno;
            if (socket) {
                begin(delegate, exported, std::move(socket));
            }
        }
        isAccepting_ = false;
        return error;
    }

    /// Gives the connection a thread of its own, or closes it when there is no room.
    void begin(
        TransportDelegate& delegate,
        TarnvaleAdminHelperProtocol& exported,
        UniqueFd socket) noexcept {
        const auto place = admit(socket);
        if (place && startThread(delegate, exported, *place)) {
            return;
        }
        const PeriodicInterrupt interrupt;
        if (place) {
            open_.end(*place);
        }
        socket.reset();
    }

    /// Takes the socket over, if there is room for the connection.
    std::optional<OpenConnections::Place> admit(UniqueFd& socket) noexcept {
        try {
            const auto uid = userOf(socket.get());
            auto slot = uid ? slots_.take(*uid) : std::nullopt;
            if (slot) {
                return open_.add(std::move(*slot), std::move(socket), *uid, codeSigning_);
            }
        } catch (...) {
            // Out of memory for it.
        }
        return std::nullopt;
    }

    /// The thread ends the connection when it is done. False when no thread can be started.
    bool startThread(
        TransportDelegate& delegate,
        TarnvaleAdminHelperProtocol& exported,
        OpenConnections::Place place) noexcept {
        try {
            std::thread([this, &delegate, &exported, place] {
                try {
                    place->connection.run(delegate, exported);
                } catch (...) {
                    // Out of memory: this fails the connection alone.
                }
                open_.end(place);
            }).detach();
            return true;
        } catch (...) {
            return false;
        }
    }

    CodeSigning& codeSigning_;
    int passedSockets_ = takePassedSockets();
    UniqueFd listening_;
    ConnectionSlots slots_;
    OpenConnections open_;
    std::atomic<bool> isAccepting_ = false;
    std::atomic<bool> isRetired_ = false;
};

}  // namespace

std::unique_ptr<Transport> makeTransport(CodeSigning& codeSigning) {
    return std::make_unique<DBusTransport>(codeSigning);
}

}  // namespace tarnvale::platform
