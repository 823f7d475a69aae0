// SPDX-License-Identifier: MIT
//
// Every test program's entry: it moves itself into a private root and starts again there, so that
// it is a program of that root through and through, then runs its tests. Where the kernel gives no
// private root, the program is skipped with the reason, by the exit status that ctest knows.

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/PrivateRoot.h"
#include "tests/support/SkipReasons.h"

namespace {

/// Holds the ID of the process that has entered its private root and starts again there.
constexpr const char* restartedVariable = "TARNVALE_RESTARTED_AS";

bool wasRestarted() {
    const char* const process = std::getenv(restartedVariable);
    const bool restarted = process != nullptr && process == std::to_string(::getpid()) &&
                           tarnvale::test::isInPrivateRoot();
    ::unsetenv(restartedVariable);
    return restarted;
}

}  // namespace

#if defined(TARNVALE_THREAD_SANITIZER)
/// libsystemd draws the keys of its hash tables into one place without a lock, and copies them.
/// Whatever it copies is as random as it has to be.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the sanitizer's name
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libsystemd.so\n";
}
#endif

int main(int argc, char** argv) {
    const std::vector<char*> originalArguments(argv, argv + argc + 1);
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests) && !wasRestarted()) {
        const std::string program = std::filesystem::read_symlink("/proc/self/exe");
        if (const auto refusal = tarnvale::test::enterPrivateRoot()) {
            tarnvale::test::printSkipReason(*refusal);
            return tarnvale::test::skippedStatus;
        }
        ::setenv(restartedVariable, std::to_string(::getpid()).c_str(), 1);
        ::execv(program.c_str(), originalArguments.data());
        std::cerr << "the private root does not show " << program << '\n';
        return EXIT_FAILURE;
    }
    tarnvale::test::printSkipReasons();
    return RUN_ALL_TESTS();
}
