// SPDX-License-Identifier: MIT
//
// Owns one open file descriptor.

#pragma once

#include <utility>

#include <unistd.h>

namespace tarnvale::support {

/// Closes its descriptor when it ends. Movable, not copyable; -1 means that it holds none.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

    /// Hands the descriptor over to the caller.
    int release() noexcept { return std::exchange(fd_, -1); }

    void reset(int fd = -1) noexcept {
        const int old = std::exchange(fd_, fd);
        if (old >= 0 && old != fd) {
            ::close(old);
        }
    }

private:
    int fd_ = -1;
};

}  // namespace tarnvale::support
