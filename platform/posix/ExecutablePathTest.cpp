// SPDX-License-Identifier: MIT

#include "platform/ExecutablePath.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include "tests/support/SkipReasons.h"

namespace tarnvale::platform {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;

TEST(ExecutablePathTest, IsThatOfTheRunningFile) {
    rememberFirstArgument("/somewhere/else");

    EXPECT_THAT(executablePath(), EndsWith("/posix_test"));
    EXPECT_TRUE(fs::exists(executablePath()));
}

TEST(ExecutablePathTest, IsTheFirstArgumentWhenTheSystemDoesNotSay) {
    TARNVALE_NEEDS(mounts);
    rememberFirstArgument("./bin/helper");
    ASSERT_EQ(::mount("nothing", "/proc", "tmpfs", 0, nullptr), 0);

    const std::string path = executablePath();
    ASSERT_EQ(::umount("/proc"), 0);  // the leak check at the end needs it

    EXPECT_EQ(path, "./bin/helper");
}

TEST(ExecutablePathTest, IsTheFirstArgumentWhereTheSystemsPathMayBeCut) {
    TARNVALE_NEEDS(mounts);
    rememberFirstArgument("./bin/helper");
    ASSERT_EQ(::mount("nothing", "/proc", "tmpfs", 0, nullptr), 0);
    fs::create_directory("/proc/self");
    const std::string longest = "/" + std::string(1022, 'x');
    std::vector<std::string> paths;

    for (const std::string& reported : {longest, longest + "x", longest + "xx"}) {
        fs::remove("/proc/self/exe");
        fs::create_symlink(reported, "/proc/self/exe");
        paths.push_back(executablePath());
    }
    ASSERT_EQ(::umount("/proc"), 0);

    EXPECT_THAT(paths, ElementsAre(longest, "./bin/helper", "./bin/helper"));
}

TEST(ResolvingSymlinksTest, GivesTheRealPathOfAFile) {
    fs::create_directories("/tmp/real/folder");
    fs::create_directory_symlink("/tmp/real", "/tmp/link");

    EXPECT_EQ(resolvingSymlinksInPath("/tmp/link/./folder/../folder"), "/tmp/real/folder");
}

TEST(ResolvingSymlinksTest, TidiesThePathOfAMissingFile) {
    fs::create_directories("/tmp/real/folder");
    fs::create_directory_symlink("/tmp/real", "/tmp/link");

    EXPECT_EQ(resolvingSymlinksInPath("/tmp/link/./x/../missing"), "/tmp/link/missing");
}

TEST(ResolvingSymlinksTest, TakesARelativePathFromTheCurrentFolder) {
    fs::create_directories("/tmp/real/folder");
    fs::current_path("/tmp/real");

    EXPECT_EQ(resolvingSymlinksInPath("folder"), "/tmp/real/folder");
    EXPECT_EQ(resolvingSymlinksInPath("../missing"), "/tmp/missing");
}

TEST(ResolvingSymlinksTest, LivesWithoutACurrentFolder) {
    fs::create_directories("/tmp/gone");
    fs::current_path("/tmp/gone");
    fs::remove("/tmp/gone");

    EXPECT_EQ(resolvingSymlinksInPath("missing/./x"), "missing/x");
}

}  // namespace
}  // namespace tarnvale::platform
