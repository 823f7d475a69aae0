// SPDX-License-Identifier: MIT

#include "clilinks/PathSafety.h"

#include <algorithm>
#include <filesystem>
#include <ios>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "clilinks/CLISymlinkFixture.h"
#include "tests/support/FakeUsers.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/KillEverywhere.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::HelperCLISymlink {
namespace {

namespace fs = std::filesystem;
using test::logMessages;
using test::modeOf;
using test::put;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class PathSafetyTest : public CLISymlinkFixture {};

TEST_F(PathSafetyTest, MakesUsrLocalAndBin) {
    removeUsrLocal();

    EXPECT_EQ(install(), "");

    EXPECT_EQ(linked(), bothLinks());
    EXPECT_EQ(modeOf("/usr/local"), 0755);
    EXPECT_EQ(modeOf("/usr/local/bin"), 0755);
}

TEST_F(PathSafetyTest, TakesFoldersThatSomebodyElseMakesMeanwhile) {
    removeUsrLocal();
    test::FakeUsers users;

    test::watchCalls(
        SYS_mkdirat,
        [](const test::WatchedCall&) {
            fs::create_directories("/usr/local/bin");
            return 0;
        },
        [&] { EXPECT_TRUE(openBinDirectory(users, Create::yes)); });
}

TEST_F(PathSafetyTest, SynchronisesEachNewFolderAndTheOneAboveIt) {
    removeUsrLocal();

    const auto calls = test::systemCallsOf([] {
        test::FakeUsers users;
        test::beginKilling();
        openBinDirectory(users, Create::yes);
    });

    EXPECT_EQ(std::ranges::count(calls, SYS_fsync), 4);
}

TEST_F(PathSafetyTest, OpensNothingThatAChildInherits) {
    removeUsrLocal();
    test::FakeUsers users;

    for (const auto create : {Create::yes, Create::no}) {
        EXPECT_THAT(test::inheritableFilesOf([&] { openBinDirectory(users, create); }), IsEmpty());
    }
}

TEST_F(PathSafetyTest, HasNothingToRemoveWithoutUsrLocal) {
    removeUsrLocal();

    EXPECT_EQ(remove(), "");

    EXPECT_FALSE(fs::exists("/usr/local"));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(PathSafetyTest, HasNothingToRemoveWithoutBin) {
    fs::remove("/usr/local/bin");

    EXPECT_EQ(remove(), "");

    EXPECT_FALSE(fs::exists("/usr/local/bin"));
}

TEST_F(PathSafetyTest, MakesFoldersWithTheirModeLessTheUmask) {
    for (const auto& [mask, mode] : std::vector<std::pair<mode_t, mode_t>>{
             {0, 0755}, {022, 0755}, {027, 0750}, {077, 0700}, {0777, 0}}) {
        SCOPED_TRACE(mask);
        removeUsrLocal();

        ::umask(mask);
        EXPECT_EQ(install(), "");

        EXPECT_EQ(modeOf("/usr/local"), mode);
        EXPECT_EQ(modeOf("/usr/local/bin"), mode);
        EXPECT_EQ(linked(), bothLinks());
    }
}

TEST_F(PathSafetyTest, KeepsTheModeOfAFolderThatIsThere) {
    setMode("/usr/local/bin", 0700);

    EXPECT_EQ(install(), "");

    EXPECT_EQ(modeOf("/usr/local/bin"), 0700);
}

TEST_F(PathSafetyTest, RefusesABinThatIsNoRealFolder) {
    const std::vector<std::string> targets = {"/opt/bin", "/opt/missing", "bin"};
    fs::create_directories("/opt/bin");
    for (const std::string& target : targets) {
        SCOPED_TRACE(target);
        fs::remove("/usr/local/bin");
        fs::create_symlink(target, "/usr/local/bin");

        EXPECT_EQ(install(), binIsNoFolder);
        EXPECT_EQ(remove(), binIsNoFolder);
    }
    EXPECT_THAT(entriesOf("/opt/bin"), IsEmpty());
    EXPECT_FALSE(fs::exists("/opt/missing"));

    fs::remove("/usr/local/bin");
    put("/usr/local/bin", "");
    EXPECT_EQ(install(), binIsNoFolder);
    EXPECT_EQ(remove(), binIsNoFolder);
}

TEST_F(PathSafetyTest, RefusesAUsrLocalThatIsNoRealFolder) {
    removeUsrLocal();
    fs::create_directories("/opt/local/bin");
    fs::create_directory_symlink("/opt/local", "/usr/local");

    const char* sentence =
        "/usr/local isn't a real folder (it's a link or a file), so Tarnvale won't link into it.";
    EXPECT_EQ(install(), sentence);
    EXPECT_EQ(remove(), sentence);
    EXPECT_THAT(entriesOf("/opt/local/bin"), IsEmpty());
}

TEST_F(PathSafetyTest, JudgesTheFoldersByOwnerGroupAndMode) {
    struct Case {
        uid_t owner;
        gid_t group;
        mode_t mode;
        bool safe;
    };
    const std::vector<Case> cases = {
        {0, 0, 0755, true},
        {0, staff, 0755, true},
        {0, 0, 0775, true},
        {0, 80, 0775, true},
        {0, staff, 0775, false},
        {0, 0, 0757, false},
        {0, 80, 0777, false},
        {0, 0, 01777, false},
        {administrator, staff, 0755, true},
        {administrator, 80, 0775, true},
        {administrator, staff, 0775, false},
        {standardUser, staff, 0755, false},
        {standardUser, 80, 0775, false},
        {standardUser, 0, 0555, false},
        {unknownUser, 0, 0755, false},
    };
    const std::vector<std::pair<std::string, std::string>> folders = {

        {"/usr/local",
         "/usr/local can be changed by someone who isn't an administrator, so Tarnvale won't link "
         "into it."},
        {"/usr/local/bin", binIsUnsafe}};
    for (const auto& [folder, sentence] : folders) {
        for (const Case& given : cases) {
            SCOPED_TRACE(
                testing::Message() << folder << " of " << given.owner << ':' << given.group
                                   << " mode " << std::oct << given.mode);
            setOwner(folder, given.owner, given.group);
            setMode(folder, given.mode);

            EXPECT_EQ(install(), given.safe ? "" : sentence);
            EXPECT_EQ(linked().size(), given.safe ? 2 : 0);
            EXPECT_EQ(remove(), given.safe ? "" : sentence);
            EXPECT_THAT(linked(), IsEmpty());
        }
        setOwner(folder, 0, 0);
        setMode(folder, 0755);
    }
}

TEST_F(PathSafetyTest, LeavesLinksInAnUnsafeFolder) {
    EXPECT_EQ(install(), "");
    setMode("/usr/local/bin", 0777);

    EXPECT_EQ(remove(), binIsUnsafe);

    EXPECT_EQ(linked(), bothLinks());
}

TEST_F(PathSafetyTest, RefusesACopyInAUsersDownloads) {
    const std::string downloads = "/Users/bob/Downloads/Tarnvale.app/Contents/Helpers/";
    placePrograms(downloads);
    for (const auto& entry : fs::recursive_directory_iterator("/Users/bob")) {
        setOwner(entry.path(), standardUser);
    }
    setOwner("/Users/bob", standardUser);
    link("tarnvale", downloads + "tarnvale");
    link("tvx", tool);
    link("tx", downloads + "tarnvale");
    link("txr", "/opt/other");

    EXPECT_EQ(install(downloads + "TarnvaleAdminHelper"), copyIsUnsafe(downloads + "tarnvale"));

    EXPECT_THAT(
        linked(),
        UnorderedElementsAre(
            Pair("tvx", std::string("-> ") + tool),
            Pair("tx", "-> " + downloads + "tarnvale"),
            Pair("txr", "-> /opt/other")));
    EXPECT_THAT(logMessages(), ElementsAre("Removed /usr/local/bin/tarnvale."));
}

TEST_F(PathSafetyTest, NamesTheFirstUnsafePathFromTheToolUpwards) {
    for (fs::path unsafe = tool;; unsafe = unsafe.parent_path()) {
        SCOPED_TRACE(unsafe);
        const mode_t mode = modeOf(unsafe);
        setMode(unsafe, 0757);
        EXPECT_EQ(install(), copyIsUnsafe(unsafe));

        setMode(unsafe, mode);
        EXPECT_EQ(install(), "");
        if (unsafe == "/") {
            break;
        }
    }
}

TEST_F(PathSafetyTest, JudgesTheCopyByOwnerAndGroup) {
    setOwner(application, administrator, 80);
    setMode(application, 0775);
    EXPECT_EQ(install(), "");

    setOwner(application, administrator, staff);
    EXPECT_EQ(install(), copyIsUnsafe(application));

    setOwner(application, standardUser, 80);
    EXPECT_EQ(install(), copyIsUnsafe(application));
}

TEST_F(PathSafetyTest, JudgesTheFileThatTheToolIsALinkTo) {
    fs::create_directories("/Users/bob");
    fs::rename(tool, "/Users/bob/tool");
    setOwner("/Users/bob/tool", standardUser);
    fs::create_symlink("/Users/bob/tool", tool);
    EXPECT_EQ(install(), copyIsUnsafe("/Users/bob/tool"));

    setOwner("/Users/bob/tool", 0, 0);
    EXPECT_EQ(install(), "");
    EXPECT_EQ(linked(), bothLinks());
}

TEST_F(PathSafetyTest, TellsOfTheUnsafeCopyWhateverIsWrongWithTheFolder) {
    setMode(application, 0777);
    setMode("/usr/local/bin", 0777);
    EXPECT_EQ(install(), copyIsUnsafe(application));

    fs::remove("/usr/local/bin");
    EXPECT_EQ(install(), copyIsUnsafe(application));
    EXPECT_FALSE(fs::exists("/usr/local/bin"));
}

}  // namespace
}  // namespace tarnvale::HelperCLISymlink
