// SPDX-License-Identifier: MIT
//
// System calls as nearly everybody wants them: made again when a signal interrupts them, and
// repeated until every byte is written.

#pragma once

#include <cerrno>
#include <cstddef>
#include <string_view>

#include <unistd.h>

namespace tarnvale::support {

/// What the system call returns, once no signal interrupts it.
template <class Call>
auto uninterrupted(const Call& call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

/// Writes all bytes, in as many pieces as it takes; false, with the errno, when that fails.
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
