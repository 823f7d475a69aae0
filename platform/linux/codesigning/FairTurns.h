// SPDX-License-Identifier: MIT
//
// Turns at work that takes the processor, for threads that work for different users. Only a few
// work at a time; the users who wait take turns, however many threads wait for each.

#pragma once

#include <condition_variable>
#include <list>
#include <optional>
#include <utility>

#include <sys/types.h>

#include "platform/linux/Deadline.h"
#include "support/Mutex.h"

namespace tarnvale::platform {

/// Safe from any thread. A turn is for a few milliseconds of work, and never for waiting: longer
/// work takes one turn after the other.
class FairTurns {
public:
    explicit FairTurns(int atOnce) : free_(atOnce) {}

    /// Is given back at its end.
    class Turn {
    public:
        explicit Turn(FairTurns& turns) : turns_(&turns) {}
        Turn(Turn&& other) noexcept : turns_(std::exchange(other.turns_, nullptr)) {}
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        ~Turn() {
            if (turns_ != nullptr) {
                turns_->giveBack();
            }
        }

    private:
        FairTurns* turns_;
    };

    /// Waits for a turn on behalf of the user; nothing when the deadline is over first.
    std::optional<Turn> take(uid_t user, const Deadline& deadline) EXCLUDES(mutex_);

private:
    struct Thread {
        std::condition_variable_any called;
        bool isCalled = false;
    };
    struct User {
        uid_t user;
        std::list<Thread*> threads;  ///< in the order of their coming; never empty
    };

    bool await(uid_t user, const Deadline& deadline) REQUIRES(mutex_);
    void giveBack() noexcept EXCLUDES(mutex_);

    support::Mutex mutex_;
    int free_ GUARDED_BY(mutex_);                 ///< none while anybody waits
    std::list<User> waiting_ GUARDED_BY(mutex_);  ///< in the order of their turns
};

}  // namespace tarnvale::platform
