// SPDX-License-Identifier: MIT

#include "tests/support/ProcessUsage.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

using namespace std::chrono_literals;

TEST(ProcessUsageTest, CountsWhatAProcessHas) {
    const auto before = usageOf(::getpid());

    const support::UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Program child({"/bin/sleep", "1000"});
    constexpr std::size_t mebibytes = 16;
    const std::string memory(mebibytes << 20U, 'x');
    const auto now = usageOf(::getpid());

    EXPECT_GT(now.descriptors, before.descriptors);
    EXPECT_GE(before.threads, 1U);
    EXPECT_EQ(now.children, before.children + 1);
    // Until the child runs its own program, a few pages that were private are its as well.
    constexpr std::int64_t sharedKiB = 1024;
    EXPECT_GE(
        now.privateKiB + sharedKiB,
        before.privateKiB + static_cast<std::int64_t>(memory.size() / 1024));
}

TEST(ProcessUsageTest, HasNoFiguresOfAProcessThatHasEnded) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::_exit(EXIT_SUCCESS);
    }
    siginfo_t end{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT), 0);

    EXPECT_THROW(usageOf(child), std::runtime_error) << "nobody has waited for it yet";
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_THROW(usageOf(child), std::runtime_error);
}

TEST(ProcessUsageTest, AddsUpNoneButTheNumbersBehindTheWords) {
    EXPECT_EQ(sumOf(processFile(::getpid(), "status"), "Pid:"), ::getpid());
    EXPECT_THROW(sumOf(processFile(::getpid(), "status"), "Nothing:"), std::runtime_error);
}

}  // namespace
}  // namespace tarnvale::test
