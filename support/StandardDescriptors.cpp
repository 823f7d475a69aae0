// SPDX-License-Identifier: MIT

#include "support/StandardDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace tarnvale::support {

void openStandardDescriptors() noexcept {
    int fd = 0;
    do {
        fd = ::open("/dev/null", O_RDWR);  // NOLINT(android-cloexec-open): children share 0 to 2
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO) {
        ::close(fd);
    }
}

}  // namespace tarnvale::support
