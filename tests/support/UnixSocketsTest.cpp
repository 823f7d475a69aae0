// SPDX-License-Identifier: MIT

#include "tests/support/UnixSockets.h"

#include <array>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tarnvale::test {
namespace {

using support::UniqueFd;

class DescriptorsTest : public testing::Test {
protected:
    DescriptorsTest() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        ours = UniqueFd(ends[0]);
        theirs = UniqueFd(ends[1]);
    }

    UniqueFd ours;
    UniqueFd theirs;
};

TEST_F(DescriptorsTest, ArriveAsCopies) {
    std::array<int, 2> pipe{};
    ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
    const UniqueFd reading(pipe[0]);
    UniqueFd writing(pipe[1]);
    ASSERT_TRUE(sendDescriptor(ours.get(), "x", writing.get()));
    writing.reset();

    const UniqueFd received = receiveDescriptor(theirs.get());

    ASSERT_TRUE(received);
    EXPECT_EQ(::fcntl(received.get(), F_GETFD), FD_CLOEXEC);
    ASSERT_EQ(::write(received.get(), "!", 1), 1);
    char byte = 0;
    EXPECT_EQ(::read(reading.get(), &byte, 1), 1);
    EXPECT_EQ(byte, '!');
}

TEST_F(DescriptorsTest, AreMissedWhenOnlyAByteComes) {
    ASSERT_EQ(::send(ours.get(), "x", 1, MSG_NOSIGNAL), 1);

    EXPECT_FALSE(receiveDescriptor(theirs.get()));
}

}  // namespace
}  // namespace tarnvale::test
