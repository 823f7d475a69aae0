// SPDX-License-Identifier: MIT

#include "platform/ExecutablePath.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/macos/standin/StandIn.h"

namespace tarnvale::platform {
namespace {

namespace fs = std::filesystem;

class ExecutablePathTest : public test::OnAMac {
protected:
    ExecutablePathTest() { rememberFirstArgument("./bin/helper"); }
};

TEST_F(ExecutablePathTest, IsWhatTheSystemSays) {
    EXPECT_EQ(executablePath(), "/Applications/Tarnvale.app/Contents/Helpers/TarnvaleAdminHelper");
}

TEST_F(ExecutablePathTest, HasItsInvalidUTF8Repaired) {
    mac.executablePath = "/tmp/\xC3\xA4\xFF/helper";

    EXPECT_EQ(executablePath(), "/tmp/\xC3\xA4\uFFFD/helper");
}

TEST_F(ExecutablePathTest, IsTheFirstArgumentWhenTheSystemDoesNotSay) {
    mac.failing = {"_NSGetExecutablePath"};

    EXPECT_EQ(executablePath(), "./bin/helper");
}

TEST_F(ExecutablePathTest, HasRoomForALongPath) {
    mac.executablePath = std::string(1023, '/');
    EXPECT_EQ(executablePath(), mac.executablePath);

    mac.executablePath += '/';
    EXPECT_EQ(executablePath(), "./bin/helper");
}

TEST_F(ExecutablePathTest, TakesTheWholeBufferWhenNothingEndsIt) {
    mac.executablePath = std::string(1024, '/');
    mac.endsExecutablePath = false;

    EXPECT_EQ(executablePath(), mac.executablePath);
}

class ResolvingSymlinksTest : public testing::Test {
protected:
    ResolvingSymlinksTest() {
        fs::create_directories("/tmp/real/folder");
        fs::remove("/tmp/link");
        fs::create_directory_symlink("/tmp/real", "/tmp/link");
    }
};

TEST_F(ResolvingSymlinksTest, GivesTheRealPathOfAFile) {
    EXPECT_EQ(resolvingSymlinksInPath("/tmp/link/./folder/../folder/"), "/tmp/real/folder");
}

TEST_F(ResolvingSymlinksTest, TidiesThePathOfAMissingFile) {
    EXPECT_EQ(resolvingSymlinksInPath("/tmp/link/./x/../missing"), "/tmp/link/missing");
    EXPECT_EQ(resolvingSymlinksInPath("/tmp//link/missing//"), "/tmp/link/missing");
    EXPECT_EQ(resolvingSymlinksInPath("/missing/.."), "/");
}

TEST_F(ResolvingSymlinksTest, TakesARelativePathFromTheCurrentFolder) {
    fs::current_path("/tmp/real");

    EXPECT_EQ(resolvingSymlinksInPath("folder"), "/tmp/real/folder");
    EXPECT_EQ(resolvingSymlinksInPath("../missing"), "/tmp/missing");
}

TEST_F(ResolvingSymlinksTest, LivesWithoutACurrentFolder) {
    fs::create_directories("/tmp/gone");
    fs::current_path("/tmp/gone");
    fs::remove("/tmp/gone");

    EXPECT_EQ(resolvingSymlinksInPath("missing/./x"), "missing/x");
}

/// On a Mac /tmp, /var and /etc are links into /private. Here both are folders, which makes no
/// difference to a resolved path.
class PrivateFolderTest : public testing::Test {
protected:
    /// Makes a file there and where its path would lead without /private.
    static void makeBoth(const std::string& path) {
        fs::create_directories("/private" + path);
        fs::create_directories(path);
    }
};

TEST_F(PrivateFolderTest, IsNotShown) {
    makeBoth("/tmp/copy");
    makeBoth("/binaries");

    EXPECT_EQ(resolvingSymlinksInPath("/private/tmp/copy"), "/tmp/copy");
    EXPECT_EQ(resolvingSymlinksInPath("/private/tmp/copy/../copy"), "/tmp/copy");
    EXPECT_EQ(resolvingSymlinksInPath("/private/binaries"), "/binaries");
}

TEST_F(PrivateFolderTest, IsShownWhereThePathWithoutItLeadsNowhere) {
    fs::create_directories("/private/tmp/copy/inner");

    EXPECT_EQ(resolvingSymlinksInPath("/private/tmp/copy/inner"), "/private/tmp/copy/inner");
    EXPECT_EQ(resolvingSymlinksInPath("/private/tmp/missing"), "/private/tmp/missing");
}

TEST_F(PrivateFolderTest, IsShownWhereThePathWithoutItLeadsToAnotherTopFolder) {
    for (const std::string folder :
         {"/Applications",
          "/Library",
          "/System",
          "/Users",
          "/Volumes",
          "/bin",
          "/cores",
          "/dev",
          "/opt",
          "/private",
          "/sbin",
          "/usr"}) {
        const std::string path = folder + "/private-folder-test";
        makeBoth(path);

        EXPECT_EQ(resolvingSymlinksInPath("/private" + path), "/private" + path);
        EXPECT_EQ(resolvingSymlinksInPath("/private" + folder), "/private" + folder);
    }
}

TEST_F(PrivateFolderTest, StandsForItself) {
    makeBoth("/private");
    fs::create_directories("/privatetmp");
    fs::current_path("/");

    EXPECT_EQ(resolvingSymlinksInPath("/private"), "/private");
    EXPECT_EQ(resolvingSymlinksInPath("/private/"), "/private");
    EXPECT_EQ(resolvingSymlinksInPath("/privatetmp"), "/privatetmp");
}

}  // namespace
}  // namespace tarnvale::platform
