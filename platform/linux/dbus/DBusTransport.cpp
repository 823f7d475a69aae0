// SPDX-License-Identifier: MIT
//
// The transport on Linux: peer-to-peer D-Bus on a Unix stream socket, with one thread for each
// connection. One more thread accepts, and does nothing that a peer could hold up. Whoever has hung
// up by then costs it no more than it cost him.

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <thread>
#include <utility>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/Transport.h"
#include "platform/linux/LibSystemd.h"
#include "platform/linux/PeriodicInterrupt.h"
#include "platform/linux/codesigning/LibcryptoUnusable.h"
#include "platform/linux/codesigning/Preparation.h"
#include "platform/linux/codesigning/RootsNotice.h"
#include "platform/linux/dbus/ConnectionPlaces.h"
#include "platform/linux/dbus/DBusConnection.h"
#include "platform/linux/dbus/ListeningSocket.h"
#include "platform/linux/dbus/LocalAccounts.h"
#include "support/Mutex.h"
#include "support/SystemCalls.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {
namespace {

using support::UniqueFd;

std::optional<ucred> credentialsOf(int socket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    const int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size);
    return result == 0 ? std::optional(credentials) : std::nullopt;
}

/// Whether the process that connected had the group of the administrators.
bool hasAdministratorsGroup(int socket, const ucred& credentials) {
    std::array<gid_t, 1024> groups{};
    socklen_t size = sizeof groups;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
        size = 0;
    }
    const std::span known(groups.data(), size / sizeof(gid_t));
    return credentials.gid == administratorsGroup ||
           std::find(known.begin(), known.end(), administratorsGroup) != known.end();
}

/// The thread that accepts must be faster than those who connect and close in a loop, though there
/// are more of them. A still lower one would keep everybody else off its processor for too long.
constexpr int niceness = -10;

/// Where root may not do this, what systemd gives the service has to do.
void setNiceness(int value) {
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), value);
}

/// Whether nobody has the other end any more.
bool hasHungUp(int socket) {
    pollfd peer{.fd = socket, .events = 0, .revents = 0};
    return ::poll(&peer, 1, 0) == 1 && (peer.revents & POLLHUP) != 0;
}

bool hasUnreadBytes(int socket) {
    int unread = 0;
    return ::ioctl(socket, SIOCINQ, &unread) != 0 || unread > 0;
}

/// Ends a process that could admit nobody as long as it lives; its successor starts whole. It is
/// serving nobody, because nobody has been admitted.
[[noreturn]] void endProcess(std::string_view why) noexcept {
    for (const std::string_view part :
         {std::string_view("TarnvaleAdminHelper: "), why, std::string_view("\n")}) {
        static_cast<void>(support::writeAll(STDERR_FILENO, part));
    }
    ::_exit(EXIT_FAILURE);
}

/// Closes the socket. What was passed along comes with bytes, and may hold up closing it.
void close(UniqueFd socket) {
    std::optional<PeriodicInterrupt> interrupt;
    if (hasUnreadBytes(socket.get())) {
        interrupt.emplace();
    }
    socket.reset();
}

/// One connection and its place.
struct OpenConnection {
    OpenConnection(
        ConnectionPlaces::Place itsPlace,
        UniqueFd socket,
        const DBusConnection::User& user,
        CodeSigning& signing)
        : place(std::move(itsPlace)), connection(std::move(socket), user, signing) {}

    ConnectionPlaces::Place place;  ///< outlives the connection: taken until everything is closed
    DBusConnection connection;
};

/// Owns each open connection until the thread that runs it is done with it. Safe from any thread.
class OpenConnections {
public:
    using Position = std::list<OpenConnection>::iterator;

    template <typename... Arguments>
    Position add(Arguments&&... arguments) {
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
    void end(Position position) {
        std::list<OpenConnection> ended;
        const support::MutexLock lock(mutex_);
        ended.splice(ended.begin(), connections_, position);
    }

private:
    support::Mutex mutex_;
    std::list<OpenConnection> connections_ GUARDED_BY(mutex_);
};

class DBusTransport final : public Transport {
public:
    /// A client that waits already needs what takes longest to set up: that begins at once, beside
    /// all that comes before clients are served.
    explicit DBusTransport(CodeSigning& codeSigning) : codeSigning_(codeSigning) {
        if (hasWaitingClient(passedSockets_)) {
            prepareMeanwhile();
        }
    }

    void resume(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) override {
        if (!isPrepared_) {
            LibSystemd::get();  // if it is missing, that is found out before anybody can connect
        }
        listening_ = openListeningSocket(passedSockets_);
        if (awaitLibcrypto()) {
            // No thread starts while a library is being loaded. Whoever waits gets one before
            // libsystemd is, since the checks of a client don't need it.
            acceptOne(delegate, exported);
            LibSystemd::get();
        }
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
    void prepareMeanwhile() {
        isPrepared_ = true;
        isPreparing_ = true;
        const auto loaded = [this] {
            isPreparing_ = false;
            isPreparing_.notify_one();
        };
        try {
            std::thread([loaded] { prepareToCheckSignatures(loaded); }).detach();
        } catch (...) {
            loaded();  // without a thread the first check takes so much longer
        }
    }

    /// While libcrypto is being loaded, no other library can be, nor does a thread start. The
    /// client waits for libcrypto longest. False when no client waited.
    bool awaitLibcrypto() noexcept {
        if (!isPrepared_) {
            return false;
        }
        try {
            accounts_.readIfChanged();  // there is time for it now
        } catch (...) {
            // They are read when they are asked.
        }
        isPreparing_.wait(true);
        return true;
    }

    void acceptAll(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) {
        using namespace std::chrono_literals;
        setNiceness(niceness);
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
            if (socket && hasHungUp(socket.get())) {
                close(std::move(socket));
            } else if (socket) {
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
        const auto position = admit(socket);
        if (position && startThread(delegate, exported, *position)) {
            return;
        }
        if (position) {
            const PeriodicInterrupt interrupt;
            open_.end(*position);
        }
        close(std::move(socket));
    }

    /// Takes the socket over, if there is a place for the connection.
    std::optional<OpenConnections::Position> admit(UniqueFd& socket) noexcept {
        try {
            const auto credentials = credentialsOf(socket.get());
            if (!credentials) {
                return std::nullopt;
            }
            const uid_t uid = credentials->uid;
            const uid_t owner = accounts_.ownerOf(uid);
            const bool isAdministrator = uid == 0 || accounts_.isAdministrator(uid) ||
                                         hasAdministratorsGroup(socket.get(), *credentials);
            if (shared_.rejections.areTooMany(owner)) {
                return std::nullopt;
            }
            auto place = places_.take({.user = owner, .isAdministrator = isAdministrator});
            if (place) {
                return open_.add(
                    std::move(*place),
                    std::move(socket),
                    DBusConnection::User{.uid = uid, .owner = owner},
                    codeSigning_);
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
        OpenConnections::Position position) noexcept {
        try {
            std::thread([this, &delegate, &exported, position] {
                setNiceness(usualNiceness_);
                try {
                    position->connection.run(delegate, exported, shared_);
                } catch (const LibcryptoUnusable& unusable) {
                    endProcess(unusable.what());
                } catch (...) {
                    // Out of memory, or of time: this fails the connection alone.
                }
                open_.end(position);
            }).detach();
            return true;
        } catch (...) {
            return false;
        }
    }

    CodeSigning& codeSigning_;
    int usualNiceness_ = ::getpriority(PRIO_PROCESS, 0);
    int passedSockets_ = takePassedSockets();
    UniqueFd listening_;
    LocalAccounts accounts_;  ///< the accepting thread's
    ConnectionPlaces places_;
    DBusConnection::Shared shared_;
    OpenConnections open_;
    bool isPrepared_ = false;                ///< for a client that waits
    std::atomic<bool> isPreparing_ = false;  ///< libcrypto is being loaded
    std::atomic<bool> isAccepting_ = false;
    std::atomic<bool> isRetired_ = false;
};

}  // namespace

std::unique_ptr<Transport> makeTransport(CodeSigning& codeSigning) {
    RootsNotice::sayAtStart();
    return std::make_unique<DBusTransport>(codeSigning);
}

}  // namespace tarnvale::platform
