// SPDX-License-Identifier: MIT

#include "tests/support/Program.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using namespace std::chrono_literals;

TEST(ProgramTest, AllOthersEndWhenTheFirstProcessSaysSo) {
    TARNVALE_NEEDS(processes);
    Program first({"/bin/sleep", "1000"});
    Program second({"/bin/sleep", "1000"});

    killAllOthers();

    EXPECT_TRUE(first.endsWithin(10s));
    EXPECT_TRUE(second.endsWithin(10s));
}

TEST(ProgramTest, NobodyEndsWhenAnotherProcessSaysSo) {
    Program other({"/bin/sleep", "1000"});
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        try {
            killAllOthers();
        } catch (const std::logic_error&) {
            ::_exit(EXIT_SUCCESS);
        }
        ::_exit(EXIT_FAILURE);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);

    EXPECT_EQ(status, 0) << "it was not refused";
    EXPECT_FALSE(other.endsWithin(50ms));
}

}  // namespace
}  // namespace tarnvale::test
