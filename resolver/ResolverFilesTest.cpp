// SPDX-License-Identifier: MIT

#include "resolver/ResolverFiles.h"

#include <cerrno>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "support/Files.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/KillEverywhere.h"
#include "tests/support/RefusedCall.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::HelperResolver {
namespace {

namespace fs = std::filesystem;
using support::FileError;
using test::contentOf;
using test::logMessages;
using test::logPath;
using test::modeOf;
using test::put;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Gt;
using testing::IsEmpty;
using testing::ThrowsMessage;
using testing::UnorderedElementsAre;

constexpr const char* tvx = "/etc/resolver/tvx";
constexpr const char* tarnvale = "/etc/resolver/tarnvale";

constexpr const char* tvxText =
    "# Installed by Tarnvale: <vm>.tvx names resolve to its VMs.\n"
    "nameserver 127.0.0.1\n"
    "port 5380\n"
    "timeout 2\n";
constexpr const char* tarnvaleText =
    "# Installed by Tarnvale: <vm>.tarnvale names resolve to its VMs.\n"
    "nameserver 127.0.0.1\n"
    "port 5380\n"
    "timeout 2\n";
constexpr const char* outdatedText =
    "# Installed by Tarnvale: <vm>.tvx names resolve to its VMs.\n"
    "nameserver 127.0.0.1\n"
    "port 53\n";
constexpr const char* foreignText = "nameserver 10.0.0.1\n";

using Files = std::map<std::string, std::string>;

/// Name and content of everything in /etc/resolver.
Files files() {
    Files found;
    for (const auto& entry : fs::directory_iterator("/etc/resolver")) {
        found[entry.path().filename().string()] = contentOf(entry.path());
    }
    return found;
}

const Files& installedFiles() {
    static const Files installed = {{"tarnvale", tarnvaleText}, {"tvx", tvxText}};
    return installed;
}

class ResolverFilesTest : public testing::Test {
protected:
    ResolverFilesTest() {
        ::umask(022);
        fs::remove(logPath);
        fs::remove_all("/etc/resolver");
        fs::create_directory("/etc/resolver");
    }
};

TEST_F(ResolverFilesTest, NamesItsTwoFiles) {
    EXPECT_THAT(resolverFilePaths(), ElementsAre("/etc/resolver/tvx", "/etc/resolver/tarnvale"));
}

TEST_F(ResolverFilesTest, InstallsBothFiles) {
    installResolverFiles();

    EXPECT_EQ(files(), installedFiles());
    EXPECT_EQ(modeOf(tvx), 0644);
    EXPECT_EQ(modeOf(tarnvale), 0644);
    EXPECT_THAT(
        logMessages(),
        ElementsAre("Installed /etc/resolver/tvx.", "Installed /etc/resolver/tarnvale."));
}

TEST_F(ResolverFilesTest, WritesNothingTwice) {
    installResolverFiles();
    fs::remove(logPath);
    const auto written = fs::last_write_time("/etc/resolver");
    ASSERT_EQ(::chmod(tvx, 0600), 0);

    installResolverFiles();

    EXPECT_THAT(logMessages(), IsEmpty());
    EXPECT_EQ(fs::last_write_time("/etc/resolver"), written);
    EXPECT_EQ(modeOf(tvx), 0600);
}

TEST_F(ResolverFilesTest, RemovesBothFilesAndKeepsTheFolder) {
    installResolverFiles();
    fs::remove(logPath);

    removeResolverFiles();

    EXPECT_THAT(files(), IsEmpty());
    EXPECT_THAT(
        logMessages(),
        ElementsAre("Removed /etc/resolver/tvx.", "Removed /etc/resolver/tarnvale."));
}

TEST_F(ResolverFilesTest, HasNothingToRemoveWhereNothingIs) {
    removeResolverFiles();
    EXPECT_THAT(files(), IsEmpty());

    fs::remove("/etc/resolver");
    removeResolverFiles();
    EXPECT_FALSE(fs::exists("/etc/resolver"));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(ResolverFilesTest, GivesFilesAndFolderTheirModesWhateverTheUmask) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        SCOPED_TRACE(mask);
        fs::remove_all("/etc/resolver");

        ::umask(mask);
        installResolverFiles();

        EXPECT_EQ(modeOf("/etc/resolver"), 0755);
        EXPECT_EQ(modeOf(tvx), 0644);
        EXPECT_EQ(modeOf(tarnvale), 0644);
        EXPECT_EQ(files(), installedFiles());
    }
}

TEST_F(ResolverFilesTest, KeepsTheModeOfAFolderThatIsThere) {
    ASSERT_EQ(::chmod("/etc/resolver", 0700), 0);

    installResolverFiles();

    EXPECT_EQ(modeOf("/etc/resolver"), 0700);
    EXPECT_EQ(files(), installedFiles());
}

TEST_F(ResolverFilesTest, LeavesAForeignFileAlone) {
    put(tarnvale, foreignText);

    installResolverFiles();
    EXPECT_EQ(files(), (Files{{"tarnvale", foreignText}, {"tvx", tvxText}}));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Installed /etc/resolver/tvx.",
            "Left /etc/resolver/tarnvale alone: it wasn't installed by Tarnvale."));

    fs::remove(logPath);
    removeResolverFiles();
    EXPECT_EQ(files(), (Files{{"tarnvale", foreignText}}));
    EXPECT_THAT(logMessages(), ElementsAre("Removed /etc/resolver/tvx."));
}

TEST_F(ResolverFilesTest, ReplacesAnOutdatedFileOfItsOwn) {
    put(tvx, outdatedText);
    ASSERT_EQ(::chmod(tvx, 0600), 0);

    installResolverFiles();

    EXPECT_EQ(files(), installedFiles());
    EXPECT_EQ(modeOf(tvx), 0644);
    EXPECT_THAT(
        logMessages(),
        ElementsAre("Installed /etc/resolver/tvx.", "Installed /etc/resolver/tarnvale."));
}

TEST_F(ResolverFilesTest, KnowsItsFilesByTheMarkerAlone) {
    const std::map<std::string, bool> texts = {
        {"Installed by Tarnvale", true},
        {"# \xFF\xFEInstalled by Tarnvale\xC3", true},
        {std::string("\0\0Installed by Tarnvale", 23), true},
        {std::string(70'000, '#') + "Installed by Tarnvale\n", true},
        {"", false},
        {"# installed by tarnvale\n", false},
        {"# Installed by Tarnval\n", false},
        {"# Installed by \xFFTarnvale\n", false},
        {"# Installed  by Tarnvale\n", false},
    };
    for (const auto& [text, ours] : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        put(tvx, text);
        installResolverFiles();
        EXPECT_EQ(contentOf(tvx), ours ? tvxText : text);

        put(tvx, text);
        removeResolverFiles();
        EXPECT_EQ(fs::exists(tvx), !ours);
    }
}

TEST_F(ResolverFilesTest, AFolderInAFilesPlaceIsReportedAndEndsTheInstall) {
    fs::create_directory(tvx);

    EXPECT_THAT(
        installResolverFiles,
        ThrowsMessage<FileError>("The file “tvx” couldn’t be saved in the folder “resolver”."));
    removeResolverFiles();

    EXPECT_TRUE(fs::is_directory(tvx));
    EXPECT_FALSE(fs::exists(tarnvale));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(ResolverFilesTest, ReplacesWhatCannotBeReadAsAFile) {
    fs::create_symlink("/etc/missing", tvx);
    ASSERT_EQ(::mkfifo(tarnvale, 0644), 0);
    removeResolverFiles();
    EXPECT_TRUE(fs::is_symlink(tvx));
    EXPECT_TRUE(fs::is_fifo(tarnvale));

    installResolverFiles();

    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(tvx)));
    EXPECT_FALSE(fs::exists("/etc/missing"));
    EXPECT_EQ(files(), installedFiles());
}

TEST_F(ResolverFilesTest, LeavesALinkToAForeignFileAlone) {
    put("/etc/foreign", foreignText);
    fs::create_symlink("/etc/foreign", tarnvale);

    installResolverFiles();
    removeResolverFiles();

    EXPECT_EQ(fs::read_symlink(tarnvale), "/etc/foreign");
    EXPECT_EQ(contentOf("/etc/foreign"), foreignText);
}

TEST_F(ResolverFilesTest, NeverReplacesAFileThatCannotBeRead) {
    put(tvx, foreignText);
    const auto failureOfInstall = [](int error) {
        std::string failure = "none";
        std::thread([&] {
            test::refuseCall(SYS_read, error);
            try {
                installResolverFiles();
            } catch (const FileError& thrown) {
                failure = thrown.what();
            }
        }).join();
        return failure;
    };

    EXPECT_EQ(failureOfInstall(EIO), "The file “tvx” couldn’t be opened.");
    EXPECT_EQ(
        failureOfInstall(EACCES),
        "The file “tvx” couldn’t be opened because you don’t have permission to view it.");
    EXPECT_EQ(files(), (Files{{"tvx", foreignText}}));

    fs::rename(tvx, "/etc/foreign");
    fs::create_symlink("/etc/foreign", tvx);
    EXPECT_EQ(failureOfInstall(EIO), "The file “tvx” couldn’t be opened.");
    EXPECT_TRUE(fs::is_symlink(tvx));
    EXPECT_EQ(files(), (Files{{"tvx", foreignText}}));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(ResolverFilesTest, AModeThatCannotBeSetIsReportedAndEndsTheInstall) {
    test::refuseModeChanges();

    EXPECT_THAT(
        installResolverFiles,
        ThrowsMessage<FileError>(
            "You don’t have permission to save the file “tvx” in the folder “resolver”."));

    EXPECT_EQ(files(), (Files{{"tvx", tvxText}}));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(ResolverFilesTest, NeverWritesThroughALink) {
    put("/etc/moved", outdatedText);
    fs::create_symlink("/etc/moved", tvx);
    installResolverFiles();
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(tvx)));
    EXPECT_EQ(files(), installedFiles());
    EXPECT_EQ(contentOf("/etc/moved"), outdatedText);

    fs::remove(tvx);
    fs::create_symlink("/etc/moved", tvx);
    removeResolverFiles();
    EXPECT_THAT(files(), IsEmpty());
    EXPECT_EQ(contentOf("/etc/moved"), outdatedText);
}

TEST_F(ResolverFilesTest, TellsOfAFileInTheFoldersPlace) {
    fs::remove("/etc/resolver");
    put("/etc/resolver", "");

    EXPECT_THAT(
        installResolverFiles,
        ThrowsMessage<FileError>("The file “tvx” couldn’t be saved in the folder “resolver”."));
    removeResolverFiles();

    EXPECT_TRUE(fs::is_regular_file("/etc/resolver"));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(ResolverFilesTest, TellsOfAFolderThatCannotBeMade) {
    fs::remove("/etc/resolver");
    fs::create_symlink("/etc/missing", "/etc/resolver");

    EXPECT_THAT(
        installResolverFiles,
        ThrowsMessage<FileError>(
            "The file “resolver” couldn’t be saved in the folder “etc” because a file with the "
            "same name already exists."));

    EXPECT_FALSE(fs::exists("/etc/missing"));
}

TEST_F(ResolverFilesTest, KeepsTheFirstFileWhenTheDiskIsFullAtTheSecond) {
    TARNVALE_NEEDS(mounts);
    for (const char* limit : {"size=4k", "nr_inodes=2"}) {
        SCOPED_TRACE(limit);
        ASSERT_EQ(::mount("full", "/etc/resolver", "tmpfs", 0, limit), 0);

        EXPECT_THAT(
            installResolverFiles,
            ThrowsMessage<FileError>(
                "You can’t save the file “tarnvale” because the volume “/etc/resolver” is out of "
                "space."));

        EXPECT_EQ(files(), (Files{{"tvx", tvxText}}));
        EXPECT_THAT(logMessages(), ElementsAre("Installed /etc/resolver/tvx."));
        fs::remove(logPath);
        ASSERT_EQ(::umount("/etc/resolver"), 0);
    }
}

TEST_F(ResolverFilesTest, KeepsAnOutdatedFileWhenTheDiskIsFull) {
    TARNVALE_NEEDS(mounts);
    ASSERT_EQ(::mount("full", "/etc/resolver", "tmpfs", 0, "size=4k"), 0);
    put(tvx, outdatedText);

    EXPECT_THROW(installResolverFiles(), FileError);

    EXPECT_EQ(files(), (Files{{"tvx", outdatedText}}));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(ResolverFilesTest, TellsOfADiskThatCannotBeWritten) {
    TARNVALE_NEEDS(mounts);
    ASSERT_EQ(::mount("disk", "/etc/resolver", "tmpfs", 0, nullptr), 0);
    installResolverFiles();
    fs::remove(logPath);
    put(tarnvale, outdatedText);
    ASSERT_EQ(::mount(nullptr, "/etc/resolver", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);

    EXPECT_THAT(
        installResolverFiles,
        ThrowsMessage<FileError>(
            "You can’t save the file “tarnvale” because the volume “/etc/resolver” is read only."));
    EXPECT_THAT(removeResolverFiles, ThrowsMessage<FileError>("“tvx” couldn’t be removed."));

    EXPECT_EQ(files(), (Files{{"tvx", tvxText}, {"tarnvale", outdatedText}}));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(ResolverFilesTest, StopsAtAFileThatCannotBeRemoved) {
    TARNVALE_NEEDS(mounts);
    installResolverFiles();
    fs::remove(logPath);
    // A file that something is mounted on is in use.
    ASSERT_EQ(::mount(tarnvale, tarnvale, nullptr, MS_BIND, nullptr), 0);

    EXPECT_THAT(removeResolverFiles, ThrowsMessage<FileError>("“tarnvale” couldn’t be removed."));

    EXPECT_EQ(files(), (Files{{"tarnvale", tarnvaleText}}));
    EXPECT_THAT(logMessages(), ElementsAre("Removed /etc/resolver/tvx."));
}

/// A kill leaves each file absent, old or new, whole and with its mode. Temporary files may stay
/// beside them, but no resolver takes those for a domain's.
void expectWholeFiles(const Files& old) {
    for (const auto& [name, content] : files()) {
        if (name.starts_with('.')) {
            continue;
        }
        EXPECT_THAT(content, AnyOf(old.at(name), installedFiles().at(name))) << name;
        EXPECT_EQ(modeOf("/etc/resolver/" + name), 0644) << name;
    }
}

TEST_F(ResolverFilesTest, LeavesWholeFilesWhenKilledDuringInstall) {
    const Files old = {{"tvx", outdatedText}, {"tarnvale", ""}};
    ::umask(077);
    std::set<Files> seen;

    const int killed = test::killAtEverySystemCall(
        [] {
            fs::remove_all("/etc/resolver");
            fs::create_directory("/etc/resolver");
            put(tvx, outdatedText);
            ASSERT_EQ(::chmod(tvx, 0644), 0);
        },
        [] {
            test::beginKilling();
            installResolverFiles();
        },
        [&] {
            expectWholeFiles(old);
            seen.insert(files());
        });

    EXPECT_THAT(killed, Gt(15));
    EXPECT_THAT(seen, Contains(Files{{"tvx", outdatedText}}));
    EXPECT_THAT(seen, Contains(Files{{"tvx", tvxText}}));
    EXPECT_THAT(seen, Contains(installedFiles()));
}

TEST_F(ResolverFilesTest, LeavesWholeFilesWhenKilledDuringRemove) {
    std::set<Files> seen;

    const int killed = test::killAtEverySystemCall(
        installResolverFiles,
        [] {
            test::beginKilling();
            removeResolverFiles();
        },
        [&] { seen.insert(files()); });

    EXPECT_THAT(killed, Gt(5));
    EXPECT_THAT(
        seen, UnorderedElementsAre(installedFiles(), Files{{"tarnvale", tarnvaleText}}, Files{}));
}

TEST_F(ResolverFilesTest, FinishesAfterAKillWhateverItLeft) {
    test::killAtEverySystemCall(
        [] { fs::remove_all("/etc/resolver"); },
        [] {
            test::beginKilling();
            installResolverFiles();
        },
        [] {
            installResolverFiles();
            EXPECT_EQ(contentOf(tvx), tvxText);
            EXPECT_EQ(contentOf(tarnvale), tarnvaleText);
            EXPECT_EQ(modeOf("/etc/resolver"), 0755);
        });
}

}  // namespace
}  // namespace tarnvale::HelperResolver
