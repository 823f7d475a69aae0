// SPDX-License-Identifier: MIT

#include "clilinks/CLISymlink.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "clilinks/CLISymlinkFixture.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::HelperCLISymlink {
namespace {

namespace fs = std::filesystem;
using test::logMessages;
using test::put;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class CLISymlinkTest : public CLISymlinkFixture {};

TEST_F(CLISymlinkTest, LinksBothNamesToTheToolBesideTheHelper) {
    EXPECT_EQ(install(), "");

    EXPECT_EQ(linked(), bothLinks());
    EXPECT_THAT(logMessages(), ElementsAre(linkedLine("tarnvale"), linkedLine("tvx")));
}

TEST_F(CLISymlinkTest, LinksAgainWhatIsLinked) {
    EXPECT_EQ(install(), "");
    EXPECT_EQ(install(), "");

    EXPECT_EQ(linked(), bothLinks());
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            linkedLine("tarnvale"), linkedLine("tvx"), linkedLine("tarnvale"), linkedLine("tvx")));
}

TEST_F(CLISymlinkTest, RemovesAllFourLinks) {
    EXPECT_EQ(install(), "");
    link("tx", tool);
    link("txr", tool);
    link("other", tool);
    clearLog();

    EXPECT_EQ(remove(), "");

    EXPECT_THAT(linked(), UnorderedElementsAre(Pair("other", std::string("-> ") + tool)));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Removed /usr/local/bin/tarnvale.",
            "Removed /usr/local/bin/tvx.",
            "Removed /usr/local/bin/tx.",
            "Removed /usr/local/bin/txr."));
}

TEST_F(CLISymlinkTest, RemovesNothingFromAnEmptyFolder) {
    EXPECT_EQ(remove(), "");
    EXPECT_THAT(linked(), IsEmpty());
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(CLISymlinkTest, ReplacesLinksToOtherCopies) {
    link("tarnvale", "/Volumes/Disk/Tarnvale.app/Contents/Helpers/tarnvale");
    link("tvx", "../anywhere/Tarnvale.app/Contents/Helpers/tx");

    EXPECT_EQ(install(), "");

    EXPECT_EQ(linked(), bothLinks());
}

TEST_F(CLISymlinkTest, KnowsItsLinksByTheEndOfTheirTarget) {
    const std::map<std::string, bool> targets = {
        {"/Tarnvale.app/Contents/Helpers/tarnvale", true},
        {"/Tarnvale.app/Contents/Helpers/tx", true},
        {"/Volumes/\xFF/Tarnvale.app/Contents/Helpers/tarnvale", true},
        {"Tarnvale.app/Contents/Helpers/tarnvale", false},
        {"/Applications/MyTarnvale.app/Contents/Helpers/tarnvale", false},
        {"/Applications/Tarnvale.app/Contents/Helpers/tvx", false},
        {"/Applications/Tarnvale.app/Contents/Helpers/tarnvale2", false},
        {"/Applications/Tarnvale.app/Contents/Helpers/tarnvale/", false},
        {"/Applications/Tarnvale.app/Contents/Helpers/", false},
        {"/Applications/tarnvale.app/Contents/Helpers/tarnvale", false},
        {"tarnvale", false},
    };
    for (const auto& [target, ours] : targets) {
        SCOPED_TRACE(target);
        link("tvx", target);

        EXPECT_EQ(remove(), "");

        EXPECT_EQ(linked().empty(), ours);
        fs::remove("/usr/local/bin/tvx");
    }
}

TEST_F(CLISymlinkTest, KnowsALinkToThisVeryToolWhereverTheHelperLies) {
    placePrograms("/opt/tarnvale");
    const Entries links = {
        {"tarnvale", "-> /opt/tarnvale/tarnvale"}, {"tvx", "-> /opt/tarnvale/tarnvale"}};

    EXPECT_EQ(install("/opt/tarnvale/TarnvaleAdminHelper"), "");
    EXPECT_EQ(install("/opt/tarnvale/TarnvaleAdminHelper"), "");
    EXPECT_EQ(linked(), links);

    EXPECT_EQ(remove("/opt/tarnvale/TarnvaleAdminHelper"), "");
    EXPECT_THAT(linked(), IsEmpty());
}

TEST_F(CLISymlinkTest, CleansUpLegacyLinksOnInstall) {
    link("tx", tool);
    link("txr", "/Users/ada/Tarnvale.app/Contents/Helpers/tx");

    EXPECT_EQ(install(), "");

    EXPECT_EQ(linked(), bothLinks());
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            linkedLine("tarnvale"),
            linkedLine("tvx"),
            "Removed /usr/local/bin/tx.",
            "Removed /usr/local/bin/txr."));
}

TEST_F(CLISymlinkTest, LeavesALegacyLinkOfAnotherPackageAlone) {
    const std::string left =
        "Left /usr/local/bin/txr alone: it points at ../Cellar/txr/292/bin/txr, not a Tarnvale "
        "bundle.";
    link("txr", "../Cellar/txr/292/bin/txr");
    put("/usr/local/bin/tx", "a program of somebody else");

    EXPECT_EQ(install(), "");
    EXPECT_THAT(logMessages(), ElementsAre(linkedLine("tarnvale"), linkedLine("tvx"), left));

    EXPECT_EQ(remove(), "");
    EXPECT_THAT(
        linked(),
        UnorderedElementsAre(Pair("tx", "file"), Pair("txr", "-> ../Cellar/txr/292/bin/txr")));
    EXPECT_THAT(logMessages().back(), left);
}

TEST_F(CLISymlinkTest, LeavesForeignThingsAtTheCurrentNamesAloneOnRemove) {
    link("tarnvale", "/opt/other/tarnvale");
    fs::create_directories("/usr/local/bin/tvx");

    EXPECT_EQ(remove(), "");

    EXPECT_THAT(
        linked(),
        UnorderedElementsAre(Pair("tarnvale", "-> /opt/other/tarnvale"), Pair("tvx", "folder")));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Left /usr/local/bin/tarnvale alone: it points at /opt/other/tarnvale, not a Tarnvale "
            "bundle."));
}

TEST_F(CLISymlinkTest, RefusesToReplaceAnythingForeign) {
    link("tarnvale", "/opt/other/tarnvale");
    EXPECT_EQ(install(), tarnvaleIsForeign);
    EXPECT_THAT(linked(), UnorderedElementsAre(Pair("tarnvale", "-> /opt/other/tarnvale")));

    fs::remove("/usr/local/bin/tarnvale");
    fs::create_directories("/usr/local/bin/tarnvale");
    EXPECT_EQ(install(), tarnvaleIsForeign);

    fs::remove("/usr/local/bin/tarnvale");
    ASSERT_EQ(::mkfifo("/usr/local/bin/tarnvale", 0644), 0);
    EXPECT_EQ(install(), tarnvaleIsForeign);
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(CLISymlinkTest, KeepsTheFirstLinkWhenTheSecondNameIsTaken) {
    put("/usr/local/bin/tvx", "somebody's own");
    link("tx", tool);

    EXPECT_EQ(
        install(),
        "/usr/local/bin/tvx already exists and isn't a Tarnvale link. Move it aside, then try "
        "again.");

    EXPECT_THAT(
        linked(),
        UnorderedElementsAre(
            Pair("tarnvale", std::string("-> ") + tool),
            Pair("tvx", "file"),
            Pair("tx", std::string("-> ") + tool)));
    EXPECT_THAT(logMessages(), ElementsAre(linkedLine("tarnvale")));
}

TEST_F(CLISymlinkTest, ReadsTheFirst1024BytesOfATarget) {
    const std::string end = "/Tarnvale.app/Contents/Helpers/tarnvale";
    const std::string target = std::string(1024 - end.size(), '/') + end;
    ASSERT_EQ(target.size(), 1024);
    link("tarnvale", target);
    link("tvx", target + "2");
    link("tx", "/" + target);

    EXPECT_EQ(remove(), "");

    EXPECT_THAT(linked(), UnorderedElementsAre(Pair("tx", "-> /" + target)));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Removed /usr/local/bin/tarnvale.",
            "Removed /usr/local/bin/tvx.",
            "Left /usr/local/bin/tx alone: it points at /" + target.substr(0, 1023) +
                ", not a Tarnvale bundle."));
}

TEST_F(CLISymlinkTest, RepairsATargetThatIsNotUtf8) {
    link("tx", "/opt/b\xFCro");
    link("txr", std::string(1023, 'x') + "\xC3\xBC");

    EXPECT_EQ(remove(), "");

    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Left /usr/local/bin/tx alone: it points at /opt/b\uFFFDro, not a Tarnvale bundle.",
            "Left /usr/local/bin/txr alone: it points at " + std::string(1023, 'x') +
                "\uFFFD, not a Tarnvale bundle."));
}

TEST_F(CLISymlinkTest, RefusesACopyWithoutItsTool) {
    const std::string missing = std::string("The bundled 'tarnvale' tool isn't at ") + tool + ".";
    setMode(tool, 0644);
    EXPECT_EQ(install(), missing);

    fs::remove(tool);
    EXPECT_EQ(install(), missing);

    fs::create_symlink("/nowhere", tool);
    EXPECT_EQ(install(), missing);
    EXPECT_THAT(linked(), IsEmpty());
}

TEST_F(CLISymlinkTest, RemovesLinksWithoutTheTool) {
    EXPECT_EQ(install(), "");
    fs::remove(tool);

    EXPECT_EQ(remove(), "");

    EXPECT_THAT(linked(), IsEmpty());
}

TEST_F(CLISymlinkTest, FindsTheToolThroughLinksToTheHelper) {
    fs::create_directories("/opt/elsewhere");
    fs::create_symlink(helper, "/opt/elsewhere/helper");
    fs::create_directory_symlink("/Applications", "/Apps");
    EXPECT_EQ(install("/opt/elsewhere/helper"), "");
    EXPECT_EQ(linked(), bothLinks());

    EXPECT_EQ(install("/Apps/Tarnvale.app/Contents/Helpers/TarnvaleAdminHelper"), "");
    EXPECT_EQ(linked(), bothLinks());
}

TEST_F(CLISymlinkTest, FindsTheToolOnceTheHelperHasBeenReplaced) {
    TARNVALE_NEEDS(mounts);
    // The running helper is deleted before it looks for itself, as an upgrade does.
    const std::string script =
        std::string("exec 9<") + helper + "; rm " + helper + "; exec /proc/self/fd/9 install";

    EXPECT_EQ(outputOf({"/bin/sh", "-c", script}), "");

    EXPECT_EQ(linked(), bothLinks());
}

TEST_F(CLISymlinkTest, GoesByTheFirstArgumentWhereTheHelpersPathIsTooLong) {
    for (const std::size_t length : {1023U, 1024U, 1500U}) {
        SCOPED_TRACE(length);
        std::string folder = "/opt";
        const std::size_t wanted = length - std::string("/TarnvaleAdminHelper").size();
        while (folder.size() < wanted) {
            const std::size_t part = std::min<std::size_t>(200, wanted - folder.size());
            folder.append("/").append(part - 1, 'x');
        }
        placePrograms(folder);
        ASSERT_EQ((folder + "/TarnvaleAdminHelper").size(), length);

        EXPECT_EQ(install(folder + "/TarnvaleAdminHelper"), "");

        EXPECT_EQ(fs::read_symlink("/usr/local/bin/tvx"), folder + "/tarnvale");
        fs::remove("/usr/local/bin/tarnvale");
        fs::remove("/usr/local/bin/tvx");
    }
}

}  // namespace
}  // namespace tarnvale::HelperCLISymlink
