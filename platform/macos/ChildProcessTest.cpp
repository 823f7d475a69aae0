// SPDX-License-Identifier: MIT

#include "platform/ChildProcess.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/macos/standin/StandIn.h"

namespace tarnvale::platform {
namespace {

using testing::ElementsAre;

class ChildProcessTest : public test::OnAMac {
protected:
    posix_spawn_file_actions_t actions{};
    short flags = POSIX_SPAWN_SETSIGMASK;
};

TEST_F(ChildProcessTest, ClosesEveryDescriptorThatNobodyPasses) {
    EXPECT_EQ(keepOtherDescriptors(actions, flags), 0);

    EXPECT_EQ(flags, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_CLOEXEC_DEFAULT);
}

TEST_F(ChildProcessTest, PassesStandardInput) {
    EXPECT_EQ(keepOtherDescriptors(actions, flags), 0);

    EXPECT_THAT(mac.inheritedFiles, ElementsAre(0));
}

TEST_F(ChildProcessTest, TellsWhatWentWrong) {
    mac.failing = {"posix_spawn_file_actions_addinherit_np"};

    EXPECT_EQ(keepOtherDescriptors(actions, flags), ENOMEM);
}

}  // namespace
}  // namespace tarnvale::platform
