// SPDX-License-Identifier: MIT

#include "support/Files.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <latch>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/KillEverywhere.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/RefusedCall.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::support {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::contentOf;
using test::exists;
using test::modeOf;
using test::namesIn;
using test::put;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::ThrowsMessage;
using Operation = FileError::Operation;

constexpr mode_t secret = 0600;
constexpr mode_t forAll = 0644;

class FilesTest : public testing::Test {
protected:
    FilesTest() { fs::create_directories(folder); }

    /// Puts a small file system on the tests' folder.
    void mountSmallDisk(unsigned long flags = 0) const {
        ASSERT_EQ(::mount("small", folder.c_str(), "tmpfs", flags, "size=16k,mode=0755"), 0);
    }

    std::string inFolder(std::string_view name) const {
        return std::string(folder).append("/").append(name);
    }

    const std::string folder = "/tmp/files";
    const std::string path = "/tmp/files/notes.txt";
};

TEST_F(FilesTest, WritesANewFile) {
    const std::string bytes("one\0two\n", 8);

    writeFileAtomically(path, bytes, forAll);

    EXPECT_EQ(contentOf(path), bytes);
    EXPECT_THAT(namesIn(folder), ElementsAre("notes.txt"));
}

TEST_F(FilesTest, ReplacesAFile) {
    put(path, "a longer text than what comes");

    writeFileAtomically(path, "short", forAll);

    EXPECT_EQ(contentOf(path), "short");
    EXPECT_THAT(namesIn(folder), ElementsAre("notes.txt"));
}

TEST_F(FilesTest, WritesAnEmptyFile) {
    writeFileAtomically(path, "", secret);

    EXPECT_EQ(contentOf(path), "");
}

TEST_F(FilesTest, WritesMoreThanOneWriteTakes) {
    const std::string bytes(5'000'000, 'x');

    writeFileAtomically(path, bytes, forAll);

    EXPECT_EQ(contentOf(path), bytes);
}

TEST_F(FilesTest, WritesContentPieceByPiece) {
    const auto threePieces = [](const auto& append) {
        append("one ");
        append("");
        append("two");
    };

    writeFileAtomically(path, threePieces, secret);

    EXPECT_EQ(contentOf(path), "one two");
    EXPECT_EQ(modeOf(path), secret);
    EXPECT_THAT(namesIn(folder), ElementsAre("notes.txt"));
}

TEST_F(FilesTest, KeepsTheOldFileWhenTheContentCannotBeMade) {
    put(path, "old");
    const auto breakOff = [](const auto& append) {
        append("half of ");
        throw std::runtime_error("no more");
    };

    EXPECT_THAT(
        [&] { writeFileAtomically(path, breakOff, secret); },
        ThrowsMessage<std::runtime_error>("no more"));

    EXPECT_EQ(contentOf(path), "old");
    EXPECT_THAT(namesIn(folder), ElementsAre("notes.txt"));
}

TEST_F(FilesTest, GivesTheFileItsModeWhateverTheUmaskAndTheOldMode) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        ::umask(mask);
        for (const mode_t mode : {secret, forAll}) {
            fs::remove(path);
            writeFileAtomically(path, "new", mode);
            EXPECT_EQ(modeOf(path), mode) << mask;

            fs::permissions(path, fs::perms(0666));
            writeFileAtomically(path, "newer", mode);
            EXPECT_EQ(modeOf(path), mode) << mask;
        }
    }
}

TEST_F(FilesTest, ReplacesALinkInsteadOfFollowingIt) {
    put("/tmp/elsewhere", "kept");
    fs::create_symlink("/tmp/elsewhere", path);

    writeFileAtomically(path, "new", forAll);

    EXPECT_FALSE(fs::is_symlink(path));
    EXPECT_EQ(contentOf(path), "new");
    EXPECT_EQ(contentOf("/tmp/elsewhere"), "kept");
}

TEST_F(FilesTest, SynchronisesTheFileBeforeTheRenameAndTheFolderAfterIt) {
    const auto calls = test::systemCallsOf([this] {
        test::beginKilling();
        writeFileAtomically(path, "new", secret);
    });

    std::vector<long> ofInterest;
    for (const long call : calls) {
        // However many writes there are, what matters is what comes after them.
        const bool isAnotherWrite =
            call == SYS_write && !ofInterest.empty() && ofInterest.back() == SYS_write;
        if (!isAnotherWrite && (call == SYS_write || call == SYS_fsync || call == SYS_renameat)) {
            ofInterest.push_back(call);
        }
    }
    EXPECT_THAT(ofInterest, ElementsAre(SYS_write, SYS_fsync, SYS_renameat, SYS_fsync));
}

bool isMakingFolder(long call) {
#ifdef SYS_mkdir  // newer architectures have none
    return call == SYS_mkdir || call == SYS_mkdirat;
#else
    return call == SYS_mkdirat;
#endif
}

TEST_F(FilesTest, SynchronisesTheFolderAboveEachNewOne) {
    const auto calls = test::systemCallsOf([this] {
        test::beginKilling();
        makeFolders(inFolder("a/b"));
    });

    std::vector<long> ofInterest;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(ofInterest), [](long call) {
        return isMakingFolder(call) || call == SYS_fsync;
    });
    ASSERT_EQ(ofInterest.size(), 4U);
    EXPECT_EQ(ofInterest[1], SYS_fsync);
    EXPECT_EQ(ofInterest[3], SYS_fsync);
}

TEST_F(FilesTest, ATemporaryFileOfOthersIsRootsAloneUntilItHasItsOwner) {
    put(path, "old");
    fs::permissions(path, fs::perms(forAll));
    std::set<mode_t> seen;

    // Killed in between, it leaves its temporary file with the mode that it had then.
    test::killAtEverySystemCall(
        [] {},
        [this] {
            test::beginKilling();
            replaceFileKeepingAttributes(path, "new");
        },
        [&] {
            for (const auto& name : namesIn(folder)) {
                if (name.starts_with(".")) {
                    seen.insert(modeOf(inFolder(name)));
                    fs::remove(inFolder(name));
                    break;
                }
            }
        });

    EXPECT_THAT(seen, ElementsAre(secret, forAll));
}

TEST_F(FilesTest, ADeathAtAnyInstantLeavesTheOldFileOrTheNew) {
    ::umask(0);

    const int deaths = test::killAtEverySystemCall(
        [this] {
            fs::remove_all(folder);
            put(path, "old");
        },
        [this] {
            test::beginKilling();
            writeFileAtomically(path, "new", secret);
        },
        [this] {
            EXPECT_THAT(contentOf(path), AnyOf("old", "new"));
            for (const auto& name : namesIn(folder)) {
                if (name != "notes.txt") {
                    EXPECT_EQ(modeOf(inFolder(name)), secret) << name;
                }
            }
        });

    EXPECT_GE(deaths, 6);
}

TEST_F(FilesTest, SweepsAwayWhatKilledWritesLeft) {
    const std::string leftover = ".notes.txt.0123456789abcdef";
    const std::string young = ".notes.txt.fedcba9876543210";
    const std::string others = ".other.txt.0123456789abcdef";
    const std::string notOurs = ".notes.txt.swp";
    const std::string asLong = ".notes.txt.20261121-backup0";
    for (const auto& name : {leftover, young, others, notOurs, asLong}) {
        put(inFolder(name), "left");
        const std::chrono::seconds age = name == young ? 59min : 2h;
        fs::last_write_time(inFolder(name), fs::file_time_type::clock::now() - age);
    }
    const std::string link = ".notes.txt.1111111111111111";
    fs::create_symlink(inFolder(others), inFolder(link));

    writeFileAtomically(path, "new", forAll);

    EXPECT_THAT(namesIn(folder), ElementsAre(link, asLong, young, notOurs, others, "notes.txt"));
}

TEST_F(FilesTest, GoesOnWritingAfterASignal) {
    for (const long call : {SYS_write, SYS_fsync}) {
        put(path, "old");

        const int interrupted =
            test::interruptCalls(call, [this] { writeFileAtomically(path, "new", secret); });

        EXPECT_GT(interrupted, 0) << call;
        EXPECT_EQ(contentOf(path), "new") << call;
    }
}

TEST_F(FilesTest, NeverWritesIntoAFileThatHasTheTemporaryName) {
    std::string theirs;

    test::watchCalls(
        SYS_openat,
        [&](const test::WatchedCall& call) {
            const std::string_view name(
                std::bit_cast<const char*>(std::uintptr_t{call.arguments[1]}));
            if (theirs.empty() && name.starts_with(".notes.txt.")) {
                theirs = inFolder(name);
                put(theirs, "theirs");
            }
            return 0;
        },
        [this] { writeFileAtomically(path, "ours", secret); });

    ASSERT_NE(theirs, "");
    EXPECT_EQ(contentOf(theirs), "theirs");
    EXPECT_EQ(contentOf(path), "ours");
}

TEST_F(FilesTest, TellsAFileFromALinkToOne) {
    put(path, "text");
    fs::create_symlink(path, inFolder("link"));

    EXPECT_TRUE(isFileThere(path));
    EXPECT_FALSE(isFileThere(inFolder("link")));
    EXPECT_FALSE(isFileThere(folder));
}

TEST_F(FilesTest, TakesForNoFileOnlyWhatIsKnownToBeNone) {
    put(path, "text");
    fs::create_symlink("loop", inFolder("loop"));

    EXPECT_FALSE(isFileThere(inFolder("missing")));
    EXPECT_FALSE(isFileThere(inFolder("missing/file")));
    EXPECT_FALSE(isFileThere(path + "/file"));
    EXPECT_TRUE(isFileThere(inFolder("loop/file")));
}

TEST_F(FilesTest, KeepsTheBitsAboveThePermissionsOfAFileThatIsNotOurs) {
    put(path, "old");
    fs::permissions(path, fs::perms(01640));

    replaceFileKeepingAttributes(path, "new");

    EXPECT_EQ(fs::status(path).permissions(), fs::perms(01640));
}

TEST_F(FilesTest, LetsNoProgramThatIsStartedMeanwhileInherit) {
    // A sanitizer writes into a pipe of its own to learn whether memory can be read.
    EXPECT_THAT(
        test::inheritableFilesOf([this] {
            makeFolders(inFolder("new"));
            writeFileAtomically(path, "new", secret);
            replaceFileKeepingAttributes(path, "newer");
            readFile(path);
            removeFile(path);
        }),
        Each(StartsWith("pipe:")));
}

TEST_F(FilesTest, TakesAFolderThatSomebodyElseMakesMeanwhile) {
#ifdef SYS_mkdir  // newer architectures have none
    constexpr long making = SYS_mkdir;
#else
    constexpr long making = SYS_mkdirat;
#endif
    const auto made = inFolder("made");

    test::watchCalls(
        making,
        [&](const test::WatchedCall&) {
            fs::create_directory(made);
            return 0;
        },
        [&] { makeFolders(made); });

    EXPECT_TRUE(fs::is_directory(made));
}

TEST_F(FilesTest, AFolderInTheFilesPlaceStaysAndNothingIsLeftBehind) {
    put(path + "/inside", "kept");

    EXPECT_THAT(
        [this] { writeFileAtomically(path, "new", forAll); },
        ThrowsMessage<FileError>("The file “notes.txt” couldn’t be saved in the folder “files”."));

    EXPECT_THAT(namesIn(folder), ElementsAre("notes.txt"));
    EXPECT_EQ(contentOf(path + "/inside"), "kept");
}

TEST_F(FilesTest, AMissingFolderIsTold) {
    EXPECT_THAT(
        [] { writeFileAtomically("/tmp/nowhere/notes.txt", "new", forAll); },
        ThrowsMessage<FileError>("The folder “notes.txt” doesn’t exist."));
}

TEST_F(FilesTest, AFullVolumeIsToldAndKeepsTheOldFile) {
    TARNVALE_NEEDS(mounts);
    mountSmallDisk();
    put(path, "old");

    EXPECT_THAT(
        [this] { writeFileAtomically(path, std::string(20'000, 'x'), forAll); },
        ThrowsMessage<FileError>(
            "You can’t save the file “notes.txt” because the volume “/tmp/files” is out of "
            "space."));

    EXPECT_EQ(contentOf(path), "old");
    EXPECT_THAT(namesIn(folder), ElementsAre("notes.txt"));
}

TEST_F(FilesTest, AReadOnlyVolumeIsTold) {
    TARNVALE_NEEDS(mounts);
    mountSmallDisk(MS_RDONLY);

    EXPECT_THAT(
        [this] { writeFileAtomically(path, "new", forAll); },
        ThrowsMessage<FileError>(
            "You can’t save the file “notes.txt” because the volume “/tmp/files” is read only."));
    EXPECT_THAT(
        [this] { makeFolders(inFolder("a/b")); },
        ThrowsMessage<FileError>(
            "You can’t save the file “a” because the volume “/tmp/files” is read only."));
}

TEST_F(FilesTest, KeepsTheModeAndTheOwnerOfAFileThatIsNotOurs) {
    TARNVALE_NEEDS(owners);
    for (const mode_t mask : {0U, 022U, 077U}) {
        ::umask(mask);
        put(path, "old");
        ASSERT_EQ(::chown(path.c_str(), 1234, 2345), 0);
        fs::permissions(path, fs::perms(0664));

        replaceFileKeepingAttributes(path, "new");

        struct stat info {};
        ASSERT_EQ(::stat(path.c_str(), &info), 0);
        EXPECT_EQ(contentOf(path), "new");
        EXPECT_EQ(modeOf(path), 0664U);
        EXPECT_EQ(info.st_uid, 1234U);
        EXPECT_EQ(info.st_gid, 2345U);
    }
}

TEST_F(FilesTest, GivesAFileThatIsNotOursButMissingAnOrdinaryMode) {
    ::umask(077);

    replaceFileKeepingAttributes(path, "new");

    EXPECT_EQ(contentOf(path), "new");
    EXPECT_EQ(modeOf(path), 0644U);
}

TEST_F(FilesTest, TakesForNewOnlyAForeignFileThatIsKnownToBeMissing) {
    put(path, "old");
    fs::permissions(path, fs::perms(secret));
    // The first calls of that kind are those that ask for the attributes.
    const auto replaceAfter = [this](int failures) {
        test::watchCalls(
            SYS_newfstatat,
            [failures](const test::WatchedCall& call) {
                return call.count <= failures ? ENOMEM : 0;
            },
            [this] { replaceFileKeepingAttributes(path, "new"); });
    };

    EXPECT_THAT(
        [&] { replaceAfter(1'000); },
        ThrowsMessage<FileError>("The file “notes.txt” couldn’t be saved in the folder “files”."));
    EXPECT_EQ(contentOf(path), "old");

    replaceAfter(1);
    EXPECT_EQ(contentOf(path), "new");
    EXPECT_EQ(modeOf(path), secret);
}

TEST_F(FilesTest, ReadsAWholeFile) {
    const std::string bytes = std::string("\0\xFF\n", 3) + std::string(3'000'000, 'x');
    put(path, bytes);

    EXPECT_EQ(readFile(path), bytes);
}

TEST_F(FilesTest, ReadsAnEmptyFile) {
    put(path, "");

    EXPECT_EQ(readFile(path), "");
}

TEST_F(FilesTest, ReadsAFileThatIsLongerThanItsSizeSays) {
    std::ifstream file("/proc/cpuinfo", std::ios::binary);
    const std::string expected{std::istreambuf_iterator<char>(file), {}};

    const auto bytes = readFile("/proc/cpuinfo");

    ASSERT_TRUE(bytes);
    EXPECT_EQ(bytes->substr(0, 100), expected.substr(0, 100));
    EXPECT_GT(bytes->size(), 100U);
}

TEST_F(FilesTest, ReadsThroughALink) {
    put("/tmp/elsewhere", "text");
    fs::create_symlink("/tmp/elsewhere", path);

    EXPECT_EQ(readFile(path), "text");
}

/// Lets the process open nothing more for a moment, or for as long as this lives.
class NoDescriptors {
public:
    explicit NoDescriptors(std::optional<std::chrono::milliseconds> moment = std::nullopt) {
        ::getrlimit(RLIMIT_NOFILE, &usual_);
        if (!moment) {
            setLimit(0);
            return;
        }
        // A sanitizer takes a descriptor to look at a thread that begins.
        std::latch begun(1);
        end_ = std::thread([this, &begun, moment = *moment] {
            setLimit(0);
            begun.count_down();
            std::this_thread::sleep_for(moment);
            setLimit(usual_.rlim_cur);
        });
        begun.wait();
    }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    ~NoDescriptors() {
        if (end_.joinable()) {
            end_.join();
        }
        setLimit(usual_.rlim_cur);
    }

private:
    void setLimit(rlim_t limit) const {
        const rlimit changed{.rlim_cur = limit, .rlim_max = usual_.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &changed), 0);
    }

    rlimit usual_{};
    std::thread end_;
};

TEST_F(FilesTest, ReadsAFileAlthoughThereIsNoDescriptorForAMoment) {
    put(path, "text");

    const NoDescriptors none(10ms);

    EXPECT_EQ(readFile(path), "text");
}

TEST_F(FilesTest, GivesUpAFileThatItCannotReadForLonger) {
    put(path, "text");

    const NoDescriptors none;

    EXPECT_EQ(readFile(path), std::nullopt);
}

TEST_F(FilesTest, TriesSixTimesInAll) {
    int attempts = 0;

    persistently([&] {
        ++attempts;
        errno = ENFILE;
        return -1;
    });

    EXPECT_EQ(attempts, 6);
}

TEST_F(FilesTest, TriesAgainOnlyWhatMayPass) {
    int attempts = 0;
    const auto failing = [&](int error) {
        attempts = 0;
        const int result = persistently([&] {
            ++attempts;
            errno = attempts < 3 ? error : 0;
            return attempts < 3 ? -1 : 7;
        });
        return std::pair(result, attempts);
    };

    for (const int error : {EINTR, EIO, EMFILE, ENFILE, ENOLCK, ENOMEM}) {
        EXPECT_EQ(failing(error), std::pair(7, 3)) << error;
    }
    for (const int error : {ENOENT, EACCES, ELOOP, EISDIR}) {
        EXPECT_EQ(failing(error), std::pair(-1, 1)) << error;
        EXPECT_EQ(errno, error);
    }
}

TEST_F(FilesTest, KeepsAnUnreadableFileInPlaceOfAnOlderOne) {
    for (const std::string content : {"first", "second"}) {
        put(path, content);

        keepUnreadable(path);

        EXPECT_EQ(contentOf(path + ".unreadable"), content);
        EXPECT_EQ(contentOf(path), content);
    }
}

TEST_F(FilesTest, KeepsTheSameUnreadableFileTwiceWithoutATrace) {
    put(path, "unreadable");

    keepUnreadable(path);
    keepUnreadable(path);

    EXPECT_THAT(namesIn(folder), ElementsAre("notes.txt", "notes.txt.unreadable"));
}

TEST_F(FilesTest, KeepsTheOlderUnreadableFileUnlessTheNewerIsKept) {
    put(path, "older");
    keepUnreadable(path);
    fs::remove(path);

    EXPECT_THROW(keepUnreadable(path), FileError);
    EXPECT_EQ(contentOf(path + ".unreadable"), "older");

    put(path, "newer");
    fs::remove(path + ".unreadable");
    fs::create_directory(path + ".unreadable");

    EXPECT_THROW(keepUnreadable(path), FileError);
    EXPECT_THAT(namesIn(folder), ElementsAre("notes.txt", "notes.txt.unreadable"));
}

TEST_F(FilesTest, ReadsNothingButRegularFiles) {
    ASSERT_EQ(::mkfifo(path.c_str(), secret), 0);

    EXPECT_EQ(readFile(path), std::nullopt);
    EXPECT_EQ(readFile(folder), std::nullopt);
    EXPECT_EQ(readFile("/dev/zero"), std::nullopt);
    EXPECT_EQ(readFile(inFolder("missing")), std::nullopt);
    EXPECT_EQ(readFile(""), std::nullopt);
}

TEST_F(FilesTest, MakesEveryMissingFolderByTheUmaskAndWritableForNobodyElse) {
    for (const auto& [mask, mode] :
         {std::pair<mode_t, mode_t>{0, 0755}, {002, 0755}, {027, 0750}, {077, 0700}}) {
        fs::remove_all(inFolder("a"));
        ::umask(mask);

        makeFolders(inFolder("a/b/c"));

        for (const char* const made : {"a", "a/b", "a/b/c"}) {
            EXPECT_TRUE(fs::is_directory(inFolder(made)));
            EXPECT_EQ(modeOf(inFolder(made)), mode) << made << ", umask " << mask;
        }
    }
}

TEST_F(FilesTest, WritesOurFileWhereItsModeCannotBeSetButNotAForeignOne) {
    ::umask(027);
    test::refuseModeChanges();

    writeFileAtomically(path, "new", forAll);
    EXPECT_EQ(contentOf(path), "new");
    EXPECT_EQ(modeOf(path), forAll & ~027U);

    EXPECT_THROW(replaceFileKeepingAttributes(path, "newer"), FileError);
    EXPECT_EQ(contentOf(path), "new");
}

TEST_F(FilesTest, MakesEveryMissingFolderWithExactlyTheGivenMode) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        ::umask(mask);
        fs::remove_all(inFolder("a"));

        makeFolders(inFolder("a/b"), 0755);

        EXPECT_EQ(modeOf(inFolder("a")), 0755U) << mask;
        EXPECT_EQ(modeOf(inFolder("a/b")), 0755U) << mask;
    }
}

TEST_F(FilesTest, LeavesAFolderThatIsThereAsItIs) {
    fs::permissions(folder, fs::perms(0711));

    makeFolders(folder, 0755);

    EXPECT_EQ(modeOf(folder), 0711U);
}

TEST_F(FilesTest, AFileInAFoldersPlaceIsTold) {
    put(path, "in the way");

    EXPECT_THAT(
        [this] { makeFolders(path); },
        ThrowsMessage<FileError>(
            "The file “notes.txt” couldn’t be saved in the folder “files” because a file with the "
            "same name already exists."));
    EXPECT_THAT(
        [this] { makeFolders(path + "/a"); },
        ThrowsMessage<FileError>("The file “a” couldn’t be saved in the folder “notes.txt”."));
}

TEST_F(FilesTest, SetsAMode) {
    put(path, "text");

    setMode(path, 0640);

    EXPECT_EQ(modeOf(path), 0640U);
    EXPECT_THAT(
        [this] { setMode(inFolder("missing"), 0640); },
        ThrowsMessage<FileError>("The file “missing” doesn’t exist."));
}

TEST_F(FilesTest, RemovesAFileForGood) {
    put(path, "text");

    const auto calls = test::systemCallsOf([this] {
        test::beginKilling();
        removeFile(path);
    });

    EXPECT_FALSE(exists(path));
    std::vector<long> ofInterest;
    for (const long call : calls) {
        if (call == SYS_unlinkat || call == SYS_fsync) {
            ofInterest.push_back(call);
        }
    }
    EXPECT_THAT(ofInterest, ElementsAre(SYS_unlinkat, SYS_fsync));
}

TEST_F(FilesTest, RemovesALinkAndNotWhatItPointsTo) {
    put("/tmp/elsewhere", "kept");
    fs::create_symlink("/tmp/elsewhere", path);

    removeFile(path);

    EXPECT_FALSE(exists(path));
    EXPECT_EQ(contentOf("/tmp/elsewhere"), "kept");
}

TEST_F(FilesTest, TellsThatThereIsNothingToRemove) {
    for (const std::string missing : {"/tmp/files/missing", "/tmp/nowhere/missing"}) {
        EXPECT_THAT(
            [&] { removeFile(missing); },
            ThrowsMessage<FileError>("“missing” couldn’t be removed."));
    }
    EXPECT_THAT(
        [this] { removeFile(folder); }, ThrowsMessage<FileError>("“files” couldn’t be removed."));
    EXPECT_THAT(namesIn(folder), IsEmpty());
}

TEST(FileErrorTest, TellsEveryCauseInItsOwnSentence) {
    struct Case {
        Operation operation;
        int errorNumber;
        std::string_view sentence;
    };
    const std::vector<Case> cases = {
        {Operation::write,
         EACCES,
         "You don’t have permission to save the file “F” in the folder “D”."},
        {Operation::write,
         EPERM,
         "You don’t have permission to save the file “F” in the folder “D”."},
        {Operation::write, ENOENT, "The file “F” doesn’t exist."},
        {Operation::writeInto, ENOENT, "The folder “F” doesn’t exist."},
        {Operation::write,
         EEXIST,
         "The file “F” couldn’t be saved in the folder “D” because a file with the same name "
         "already exists."},
        {Operation::write,
         ENOSPC,
         "You can’t save the file “F” because the volume “/” is out of space."},
        {Operation::write,
         EDQUOT,
         "You can’t save the file “F” because the volume “/” is out of space."},
        {Operation::write,
         EROFS,
         "You can’t save the file “F” because the volume “/” is read only."},
        {Operation::write, ENAMETOOLONG, "The file name is invalid."},
        {Operation::write, EIO, "The file “F” couldn’t be saved in the folder “D”."},
        {Operation::writeInto, ENOTDIR, "The file “F” couldn’t be saved in the folder “D”."},
        {Operation::remove,
         EACCES,
         "“F” couldn’t be removed because you don’t have permission to access it."},
        {Operation::remove,
         EPERM,
         "“F” couldn’t be removed because you don’t have permission to access it."},
        {Operation::remove, ENOENT, "“F” couldn’t be removed."},
        {Operation::remove, EIO, "“F” couldn’t be removed."},
        {Operation::launch, ENOENT, "The file “F” doesn’t exist."},
        {Operation::launch,
         EACCES,
         "The file “F” couldn’t be opened because you don’t have permission to view it."},
        {Operation::launch, ENOEXEC, "The file “F” couldn’t be opened."}};

    for (const auto& [operation, errorNumber, sentence] : cases) {
        const FileError error(operation, "/D/F", errorNumber);
        EXPECT_EQ(error.what(), sentence);
        EXPECT_EQ(error.errorNumber(), errorNumber);
    }
}

TEST(FileErrorTest, NamesAFileOfTheTopFolder) {
    EXPECT_STREQ(
        FileError(Operation::write, "/F", EIO).what(),
        "The file “F” couldn’t be saved in the folder “/”.");
}

}  // namespace
}  // namespace tarnvale::support
