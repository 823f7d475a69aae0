// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/ReadExactly.h"

#include <unistd.h>

#include "support/SystemCalls.h"

namespace tarnvale::platform {

std::optional<std::string> readExactly(int file, std::size_t count, off_t offset) {
    std::string bytes(count, '\0');
    std::size_t done = 0;
    while (done < count) {
        const ssize_t got = support::uninterrupted([&] {
            return ::pread(
                file, bytes.data() + done, count - done, offset + static_cast<off_t>(done));
        });
        if (got <= 0) {
            return std::nullopt;
        }
        done += static_cast<std::size_t>(got);
    }
    return bytes;
}

}  // namespace tarnvale::platform
