// SPDX-License-Identifier: MIT

#include "support/UniqueFd.h"

#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>

namespace tarnvale::support {
namespace {

int newDescriptor() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) >= 0;
}

TEST(UniqueFdTest, ClosesWhatItHoldsWhenItEnds) {
    const int fd = newDescriptor();
    {
        const UniqueFd owner(fd);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST(UniqueFdTest, ClosesWhatAnotherOneReplaces) {
    const int first = newDescriptor();
    const int second = newDescriptor();
    UniqueFd owner(first);

    owner = UniqueFd(second);

    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(isOpen(second));
    owner.reset(second);
    EXPECT_TRUE(isOpen(second));
    owner.reset();
    EXPECT_FALSE(isOpen(second));
}

TEST(UniqueFdTest, HandsOverWithoutClosing) {
    UniqueFd owner(newDescriptor());
    const int fd = owner.get();

    UniqueFd next(std::move(owner));
    EXPECT_EQ(next.release(), fd);

    EXPECT_FALSE(static_cast<bool>(next));
    const UniqueFd last(fd);
    EXPECT_TRUE(isOpen(fd));
}

}  // namespace
}  // namespace tarnvale::support
