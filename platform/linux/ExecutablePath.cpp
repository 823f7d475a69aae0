// SPDX-License-Identifier: MIT

#include "platform/ExecutablePath.h"

#include <array>
#include <cstddef>

#include <unistd.h>

namespace tarnvale::platform {

std::optional<std::string> reportedExecutablePath() {
    std::array<char, 1024> path{};
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    // A path that fills the buffer may have been cut.
    if (length < 0 || static_cast<std::size_t>(length) == path.size()) {
        return std::nullopt;
    }
    return std::string(path.data(), static_cast<std::size_t>(length));
}

std::string shownPath(std::string path) {
    return path;
}

}  // namespace tarnvale::platform
