// SPDX-License-Identifier: MIT

#include "support/StandardDescriptors.h"

#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarnvale::support {
namespace {

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) >= 0;
}

/// Whether a process that starts without these descriptors has all three in the end, and nothing
/// else that it hadn't before.
bool areCompletedWithout(const std::vector<int>& missing) {
    const pid_t child = ::fork();
    if (child == 0) {
        const int spare = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::close(spare);
        for (const int fd : missing) {
            ::close(fd);
        }
        openStandardDescriptors();
        const bool isComplete = isOpen(0) && isOpen(1) && isOpen(2) && !isOpen(spare);
        ::_exit(isComplete ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

TEST(StandardDescriptorsTest, AreAllThereAfterwards) {
    EXPECT_TRUE(areCompletedWithout({}));
    EXPECT_TRUE(areCompletedWithout({0}));
    EXPECT_TRUE(areCompletedWithout({1}));
    EXPECT_TRUE(areCompletedWithout({2}));
    EXPECT_TRUE(areCompletedWithout({0, 2}));
    EXPECT_TRUE(areCompletedWithout({0, 1, 2}));
}

}  // namespace
}  // namespace tarnvale::support
