// SPDX-License-Identifier: MIT
//
// The name of a full volume where the system tells it, as a Mac does. The system's part is played
// here.

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include "support/Files.h"

namespace {

/// A Mac's volumes: a firmlink in / leads /Library to another one.
struct Volumes {
    bool areKnown = true;
    std::vector<std::string> asked;
};

Volumes volumes;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's own name
extern "C" int __wrap_statfs(const char* path, struct statfs* volume) {
    const std::string_view asked = path;
    volumes.asked.emplace_back(asked);
    if (!volumes.areKnown || asked.find("missing") != std::string_view::npos) {
        errno = ENOENT;
        return -1;
    }
    const std::string_view name = asked.starts_with("/Library") ? "/System/Volumes/Data" : "/";
    *std::ranges::copy(name, std::begin(volume->f_mntonname)).out = '\0';
    return 0;
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace tarnvale::support {
namespace {

using testing::ElementsAre;

class VolumeNameTest : public testing::Test {
protected:
    VolumeNameTest() { volumes = {}; }

    static std::string problem(const std::string& path, int errorNumber = ENOSPC) {
        return FileError(FileError::Operation::write, path, errorNumber).what();
    }
};

TEST_F(VolumeNameTest, IsThatOfTheVolumeBehindAFirmlink) {
    EXPECT_EQ(
        problem("/Library/F"),
        "You can’t save the file “F” because the volume “/System/Volumes/Data” is out of space.");
    EXPECT_EQ(
        problem("/Library/F", EROFS),
        "You can’t save the file “F” because the volume “/System/Volumes/Data” is read only.");

    EXPECT_EQ(
        problem("/etc/F"), "You can’t save the file “F” because the volume “/” is out of space.");
}

TEST_F(VolumeNameTest, IsThatOfTheNearestFolderThatExists) {
    EXPECT_EQ(
        problem("/Library/missing/missing/F"),
        "You can’t save the file “F” because the volume “/System/Volumes/Data” is out of space.");
    EXPECT_THAT(
        volumes.asked, ElementsAre("/Library/missing/missing", "/Library/missing", "/Library"));
}

TEST_F(VolumeNameTest, IsTheRootWhenTheSystemDoesNotSay) {
    volumes.areKnown = false;

    EXPECT_EQ(
        problem("/Library/F"),
        "You can’t save the file “F” because the volume “/” is out of space.");
    EXPECT_EQ(problem("F"), "You can’t save the file “F” because the volume “.” is out of space.");
}

}  // namespace
}  // namespace tarnvale::support
