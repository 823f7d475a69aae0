// SPDX-License-Identifier: MIT
//
// How much memory messages may take: requests that are arriving or being carried out, and replies
// that have not left yet. The rest waits.

#pragma once

#include <cstddef>
#include <list>

#include <sys/types.h>

#include "support/Mutex.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {

/// Safe from any thread.
class BytesInFlight {
public:
    static constexpr std::size_t maxForUser = std::size_t{16} << 20U;
    static constexpr std::size_t maxInAll = std::size_t{128} << 20U;
    /// A message up to this size needs no room.
    static constexpr std::size_t maxUncounted = std::size_t{64} << 10U;

    /// The room of one connection's message. For use by one thread.
    class Room {
    public:
        Room(BytesInFlight& all, uid_t user) : all_(all), user_(user) {}
        Room(const Room&) = delete;
        Room& operator=(const Room&) = delete;
        ~Room() { giveBack(); }

        bool isEmpty() const { return size_ == 0; }

        /// Asks for room, having none, and returns a descriptor that is readable once it is there.
        /// Users take turns. A message of more than `maxForUser` bytes waits for the one place of
        /// such messages. Throws `std::system_error` or `std::bad_alloc`.
        int ask(std::size_t size);

        /// Makes it at least this large, at once: what already lies in memory frees none by
        /// waiting. Throws `std::bad_alloc`.
        void cover(std::size_t size);

        /// Gives back all of it, or stops asking.
        void giveBack() noexcept;

    private:
        friend class BytesInFlight;

        BytesInFlight& all_;
        uid_t user_;
        std::size_t size_ = 0;  ///< asked for or taken
        bool isLarge_ = false;
        support::UniqueFd taken_;
    };

private:
    /// What a user has and waits for, of large messages or of all others.
    struct Account {
        uid_t user;
        bool isLarge;
        std::size_t size = 0;        ///< of the rooms taken
        std::list<Room*> waiting{};  ///< in the order of their coming
    };
    using Accounts = std::list<Account>;

    Accounts::iterator accountOf(uid_t user, bool isLarge) REQUIRES(mutex_);
    void take(Account& account, std::size_t size) REQUIRES(mutex_);
    void grantAll() noexcept REQUIRES(mutex_);
    bool grantNext() noexcept REQUIRES(mutex_);

    support::Mutex mutex_;
    std::size_t inAll_ GUARDED_BY(mutex_) = 0;  ///< without large messages
    bool isLargePlaceTaken_ GUARDED_BY(mutex_) = false;
    Accounts accounts_ GUARDED_BY(mutex_);  ///< in the order of their turns
};

}  // namespace tarnvale::platform
