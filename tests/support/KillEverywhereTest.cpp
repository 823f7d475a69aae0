// SPDX-License-Identifier: MIT

#include "tests/support/KillEverywhere.h"

#include <filesystem>
#include <set>
#include <stdexcept>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

int entriesIn(const char* folder) {
    int entries = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        static_cast<void>(entry);
        ++entries;
    }
    return entries;
}

TEST(KillEverywhereTest, SeesEveryStateBetweenTwoSystemCalls) {
    std::set<int> seen;

    const int killed = killAtEverySystemCall(
        [] {
            fs::remove_all("/tmp/states");
            fs::create_directory("/tmp/states");
        },
        [] {
            ::mkdir("/tmp/states/undisturbed", 0700);
            beginKilling();
            ::mkdir("/tmp/states/first", 0700);
            ::mkdir("/tmp/states/second", 0700);
        },
        [&] { seen.insert(entriesIn("/tmp/states")); });

    EXPECT_GE(killed, 3);
    EXPECT_THAT(seen, ElementsAre(1, 2, 3));
}

TEST(KillEverywhereTest, KillsAnotherProgramToo) {
    std::set<bool> seen;

    const int killed = killAtEverySystemCall(
        [] { fs::remove("/tmp/made"); },
        [] {
            ::execl("/bin/sh", "sh", "-c", "kill -STOP $$; : >/tmp/made", nullptr);
            throw std::runtime_error("no shell");
        },
        [&] { seen.insert(fs::exists("/tmp/made")); });

    EXPECT_GE(killed, 2);
    EXPECT_THAT(seen, ElementsAre(false, true));
}

TEST(KillEverywhereTest, TellsAnOperationThatFailsByItself) {
    const auto nothing = [] {};

    EXPECT_THROW(
        killAtEverySystemCall(
            nothing, [] { throw std::runtime_error("as the test means it to"); }, nothing),
        std::runtime_error);
}

}  // namespace
}  // namespace tarnvale::test
