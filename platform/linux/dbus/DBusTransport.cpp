// SPDX-License-Identifier: MIT
//
// The transport on Linux: peer-to-peer D-Bus on a Unix stream socket, one thread for a connection.
// One more thread accepts, and does nothing that a peer could hold up.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

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

/// While it exists, nothing keeps its thread waiting for longer than some milliseconds. With a
/// connection are closed the descriptors that its peer has passed and nobody has taken, and where
/// that was the last close of one it is done here and now: of a TCP socket that is to linger until
/// its data has left, for as long as the one who made it pleases. A signal ends such a wait.
class Impatience {
public:
    Impatience() {
        static const bool handled = handleSignal();
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = signalNumber;
        event._sigev_un._tid = ::gettid();
        if (handled && ::timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0) {
            isSet_ = true;
            constexpr long period = 5'000'000;  // nanoseconds
            const itimerspec times{
                .it_interval = {.tv_sec = 0, .tv_nsec = period},
                .it_value = {.tv_sec = 0, .tv_nsec = period}};
            ::timer_settime(timer_, 0, &times, nullptr);
        }
    }
    Impatience(const Impatience&) = delete;
    Impatience& operator=(const Impatience&) = delete;
    ~Impatience() {
        if (isSet_) {
            ::timer_delete(timer_);
        }
    }

private:
    static constexpr int signalNumber = SIGALRM;

    static bool handleSignal() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        return ::sigaction(signalNumber, &action, nullptr) == 0;
    }

    timer_t timer_{};
    bool isSet_ = false;
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
        // Said aloud, this holds for good: by itself the allocator would learn from one large
        // request to keep as much memory for the next.
        ::mallopt(M_TRIM_THRESHOLD, 131072);  // its own value to begin with, in bytes
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
            ConnectionSlots::Slot itsSlot,
            UniqueFd socket,
            uid_t uid)
            : delegate(itsDelegate),
              exported(itsExported),
              slot(std::move(itsSlot)),
              connection(std::move(socket), uid, transport.codeSigning_) {}

        TransportDelegate& delegate;
        TarnvaleAdminHelperProtocol& exported;
        ConnectionSlots::Slot slot;  ///< outlives the connection: it is taken until all is closed
        DBusConnection connection;
    };

    void acceptAll(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) {
        using namespace std::chrono_literals;
        while (true) {
            UniqueFd socket(
                ::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (socket) {
                begin(delegate, exported, std::move(socket));
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
        TransportDelegate& delegate,
        TarnvaleAdminHelperProtocol& exported,
        UniqueFd socket) noexcept {
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the thread owns it in the end
        auto work = makeWork(delegate, exported, socket);
        if (work && startThread(work)) {
            return;
        }
        const Impatience impatience;
        work.reset();
        socket.reset();
    }

    /// Takes the socket over, or returns null.
    std::unique_ptr<Work> makeWork(
        TransportDelegate& delegate,
        TarnvaleAdminHelperProtocol& exported,
        UniqueFd& socket) noexcept {
        try {
            const auto uid = userOf(socket.get());
            auto slot = uid ? slots_.take(*uid) : std::nullopt;
            return slot ? std::make_unique<Work>(
                              *this, delegate, exported, std::move(*slot), std::move(socket), *uid)
                        : nullptr;
        } catch (...) {
            return nullptr;  // there is no memory for it
        }
    }

    /// The thread takes the work over, or it is left where it is.
    static bool startThread(std::unique_ptr<Work>& work) {
        pthread_attr_t attributes;
        if (::pthread_attr_init(&attributes) != 0) {
            return false;
        }
        ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        pthread_t thread{};
        const bool isStarted = ::pthread_create(&thread, &attributes, runWork, work.get()) == 0;
        if (isStarted) {
            work.release();  // NOLINT(bugprone-unused-return-value): it is the thread's now
        }
        ::pthread_attr_destroy(&attributes);
        return isStarted;
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
