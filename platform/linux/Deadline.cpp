// SPDX-License-Identifier: MIT

#include "platform/linux/Deadline.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace tarnvale::platform {

Deadline::Clock::duration Deadline::left() const {
    return std::max(time_ - Clock::now(), Clock::duration::zero());
}

bool waitFor(int fd, short events, const Deadline& deadline) {
    pollfd waited{.fd = fd, .events = events, .revents = 0};
    return waitFor(std::span(&waited, 1), deadline);
}

bool waitFor(std::span<pollfd> waited, const Deadline& deadline) {
    using std::chrono::ceil;
    using std::chrono::milliseconds;
    const bool isForever = deadline == Deadline();
    while (true) {
        const int timeout =
            isForever ? -1 : static_cast<int>(ceil<milliseconds>(deadline.left()).count());
        const int ready = ::poll(waited.data(), waited.size(), timeout);
        if (ready >= 0) {
            return ready > 0;
        }
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category());
        }
    }
}

}  // namespace tarnvale::platform
