// SPDX-License-Identifier: MIT
//
// A moment by which something must have happened.

#pragma once

#include <chrono>
#include <span>

#include <poll.h>

namespace tarnvale::platform {

class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    /// One that never comes.
    Deadline() = default;

    static Deadline in(Clock::duration limit) { return Deadline(Clock::now() + limit); }
    static Deadline at(Clock::time_point time) { return Deadline(time); }

    Clock::time_point time() const { return time_; }

    bool isOver() const { return Clock::now() >= time_; }

    /// Zero once it is over.
    Clock::duration left() const;

    bool operator==(const Deadline&) const = default;
    bool operator<(const Deadline& other) const { return time_ < other.time_; }

private:
    explicit Deadline(Clock::time_point time) : time_(time) {}

    Clock::time_point time_ = Clock::time_point::max();  ///< `max()` waits forever
};

/// Waits until one of poll's `events` has happened on the descriptor; false when the deadline is
/// over first. Throws `std::system_error`.
bool waitFor(int fd, short events, const Deadline& deadline);

/// The same for several descriptors, as poll waits for them.
bool waitFor(std::span<pollfd> waited, const Deadline& deadline);

}  // namespace tarnvale::platform
