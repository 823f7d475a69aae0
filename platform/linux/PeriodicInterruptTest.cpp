// SPDX-License-Identifier: MIT

#include "platform/linux/PeriodicInterrupt.h"

#include <cerrno>

#include <gtest/gtest.h>
#include <poll.h>

namespace tarnvale::platform {
namespace {

TEST(PeriodicInterruptTest, EndsAWaitOnceItsSignalIsHandled) {
    PeriodicInterrupt::handleSignal();
    const PeriodicInterrupt interrupt;

    for (int wait = 0; wait < 2; ++wait) {
        EXPECT_EQ(::poll(nullptr, 0, 10'000), -1);
        EXPECT_EQ(errno, EINTR);
    }
}

TEST(PeriodicInterruptTest, HasNoEffectBefore) {
    const PeriodicInterrupt interrupt;

    EXPECT_EQ(::poll(nullptr, 0, 50), 0);
}

TEST(PeriodicInterruptTest, HasNoEffectAfterItsLife) {
    PeriodicInterrupt::handleSignal();
    { const PeriodicInterrupt interrupt; }

    EXPECT_EQ(::poll(nullptr, 0, 50), 0);
}

}  // namespace
}  // namespace tarnvale::platform
