// SPDX-License-Identifier: MIT
//
// What nearly every system call needs: another attempt after a signal has interrupted it, and, for
// write, after only a part was written.

#pragma once

#include <cerrno>
#include <cstddef>
#include <string_view>

#include <unistd.h>

namespace tarnvale::support {

/// Repeats the system call while signals interrupt it; returns its last result.
template <class Call>
auto uninterrupted(const Call& call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

/// Writes all bytes, in as many pieces as it takes. Returns false and leaves the errno on failure.
inline bool writeAll(int fd, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const auto written = uninterrupted([&] { return ::write(fd, bytes.data(), bytes.size()); });
        if (written < 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace tarnvale::support
