// SPDX-License-Identifier: MIT
//
// Durable writes where fsync leaves the bytes in the disk's own memory and F_FULLFSYNC takes them
// to the disk. The system's part is played here, call by call.

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/Files.h"
#include "tests/support/HelperFiles.h"

namespace {

/// What the next F_FULLFSYNC and the next fsync fail with, 0 for success; and what was called.
struct Disk {
    int fullSyncError = 0;
    int syncError = 0;
    int interruptions = 0;
    std::vector<std::string> calls;
};

Disk disk;

int answer(const std::string& call, int fd, int error) {
    struct stat info {};
    ::fstat(fd, &info);
    disk.calls.push_back(call + (S_ISDIR(info.st_mode) ? " folder" : " file"));
    if (disk.interruptions > 0) {
        --disk.interruptions;
        error = EINTR;
    }
    errno = error;
    return error == 0 ? 0 : -1;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's own names
extern "C" {
int __wrap_fcntl(int fd, int command) {
    return command == F_FULLFSYNC ? answer("full sync", fd, disk.fullSyncError) : -1;
}
int __wrap_fsync(int fd) {
    return answer("sync", fd, disk.syncError);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace tarnvale::support {
namespace {

using test::contentOf;
using test::exists;
using testing::ElementsAre;
using testing::ThrowsMessage;

class FullSyncTest : public testing::Test {
protected:
    FullSyncTest() {
        disk = {};
        std::filesystem::remove(path);
    }

    void write() const { writeFileAtomically(path, "new", 0600); }

    const std::string path = "/tmp/notes.txt";
};

TEST_F(FullSyncTest, TakesTheFileAndItsFolderToTheDisk) {
    write();

    EXPECT_EQ(contentOf(path), "new");
    EXPECT_THAT(disk.calls, ElementsAre("full sync file", "full sync folder"));
}

TEST_F(FullSyncTest, ContentsItselfWithFsyncWhereTheVolumeKnowsNoMore) {
    for (const int unsupported : {ENOTSUP, ENOTTY, EINVAL}) {
        disk = {.fullSyncError = unsupported, .syncError = 0, .interruptions = 0, .calls = {}};

        write();

        EXPECT_THAT(
            disk.calls,
            ElementsAre("full sync file", "sync file", "full sync folder", "sync folder"));
    }
}

TEST_F(FullSyncTest, DoesNotTakeAFailureOfTheDiskForAVolumeThatKnowsNoMore) {
    test::put(path, "old");
    disk.fullSyncError = EIO;

    EXPECT_THAT(
        [this] { write(); },
        ThrowsMessage<FileError>("The file “notes.txt” couldn’t be saved in the folder “tmp”."));

    EXPECT_THAT(disk.calls, ElementsAre("full sync file"));
    EXPECT_EQ(contentOf(path), "old");
}

TEST_F(FullSyncTest, TellsAFailureOfTheFsyncThatItContentsItselfWith) {
    disk.fullSyncError = ENOTSUP;
    disk.syncError = ENOSPC;

    EXPECT_THROW(write(), FileError);

    EXPECT_THAT(disk.calls, ElementsAre("full sync file", "sync file"));
    EXPECT_FALSE(exists(path));
}

TEST_F(FullSyncTest, AsksAgainWhenASignalInterruptsIt) {
    disk.interruptions = 2;

    write();

    EXPECT_THAT(
        disk.calls,
        ElementsAre("full sync file", "full sync file", "full sync file", "full sync folder"));
}

TEST_F(FullSyncTest, TakesADeletionToTheDisk) {
    test::put(path, "old");

    removeFile(path);

    EXPECT_FALSE(exists(path));
    EXPECT_THAT(disk.calls, ElementsAre("full sync folder"));
}

}  // namespace
}  // namespace tarnvale::support
