// SPDX-License-Identifier: MIT

#include "platform/ChildProcess.h"

#include <array>

#include <fcntl.h>
#include <unistd.h>

namespace tarnvale::platform {

using support::UniqueFd;

std::optional<Pipe> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    return Pipe{.reader = UniqueFd(ends[0]), .writer = UniqueFd(ends[1])};
}

short closingSpawnFlags() {
    return 0;
}

}  // namespace tarnvale::platform
