// SPDX-License-Identifier: MIT
//
// The script that takes the helper off a Mac: what it removes, what it leaves alone, and that it
// may be run at any time. Scripts play the commands that only a Mac has.

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/ScriptedPfctl.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* script = TARNVALE_SOURCE_DIR "/packaging/macos/uninstall";
constexpr const char* jobPlist = "/Library/LaunchDaemons/com.brackwen.tarnvale.adminhelper.plist";
constexpr const char* helper = "/Applications/Tarnvale.app/Contents/Helpers/TarnvaleAdminHelper";
constexpr const char* tool = "/Applications/Tarnvale.app/Contents/Helpers/tarnvale";
constexpr const char* flush = "-a com.apple/900.tarnvale.firewall -F rules";

/// Of a helper that was killed while it wrote.
constexpr std::array leftovers = {
    "/etc/resolver/.tvx.0123456789abcdef",
    "/etc/resolver/.tarnvale.fedcba9876543210",
    "/etc/.pf.conf.0000000000000000"};

/// Exists while launchd has the job. Holds how often launchd still shows it after a bootout.
constexpr const char* job = "/tmp/job";
constexpr const char* bootout = "bootout system/com.brackwen.tarnvale.adminhelper\n";
constexpr const char* print = "print system/com.brackwen.tarnvale.adminhelper\n";

void link(const std::string& name, const std::string& target) {
    fs::create_directories("/usr/local/bin");
    fs::remove("/usr/local/bin/" + name);
    fs::create_symlink(target, "/usr/local/bin/" + name);
}

class UninstallTest : public testing::Test {
protected:
    UninstallTest() {
        putScript(
            "/usr/bin/launchctl",
            "echo \"$*\" >>/tmp/launchctl.calls\n"
            "[ -e /tmp/job ] || exit 113\n"
            "read -r left </tmp/job\n"
            "case $1:$left in\n"
            "bootout:0) rm /tmp/job ;;\n"
            "print:1) rm /tmp/job ;;\n"
            "print:*) echo $((left - 1)) >/tmp/job ;;\n"
            "esac\n");
        putScript(
            "/usr/sbin/pkgutil",
            "case $* in\n"
            "'--pkg-info com.brackwen.tarnvale.pkg') [ -e /tmp/receipt ] ;;\n"
            "'--forget com.brackwen.tarnvale.pkg') rm /tmp/receipt ;;\n"
            "*) exit 1 ;;\n"
            "esac\n");
        fs::remove("/usr/sbin/ifconfig");  // in a user namespace another's file can't be written
        putScript("/usr/sbin/ifconfig", "[ $1 = vlan0 ] || [ $1 = vlan7 ]\n");
        for (const char* folder : {"/usr/local/bin", "/etc/resolver"}) {
            fs::remove_all(folder);
            fs::create_directories(folder);
        }
    }

    /// Everything that the helper, its installation and the package can have made.
    static void installEverything() {
        put(job, "0\n");
        put("/tmp/receipt", "");
        put(jobPlist, "");
        put(helper, "");
        put(tool, "");
        put(storePath, "{}");
        put(supportFolder + "/.firewall-policies.json.0123456789abcdef", "");
        put(logPath, "");
        link("tarnvale", tool);
        link("tvx", tool);
        link("tx", "/Volumes/Old/Tarnvale.app/Contents/Helpers/tx");
        link("txr", "/Volumes/Old/Tarnvale.app/Contents/Helpers/tarnvale");
        put("/etc/resolver/tvx", "# Installed by Tarnvale: <vm>.tvx names resolve to its VMs.\n");
        put("/etc/resolver/tarnvale", "# Installed by Tarnvale: older\n");
        for (const char* name : leftovers) {
            put(name, "");
        }
    }

    static Finished uninstall(std::vector<std::string> options = {}) {
        options.insert(options.begin(), script);
        return run(options);
    }

    ScriptedPfctl pfctl;
};

TEST_F(UninstallTest, TakesAwayEverythingThatIsOurs) {
    installEverything();

    const Finished finished = uninstall();

    EXPECT_EQ(finished.error, "");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(
        finished.output,
        "Removed /Library/LaunchDaemons/com.brackwen.tarnvale.adminhelper.plist.\n"
        "Removed /usr/local/bin/tarnvale.\n"
        "Removed /usr/local/bin/tvx.\n"
        "Removed /usr/local/bin/tx.\n"
        "Removed /usr/local/bin/txr.\n"
        "Removed /etc/resolver/tvx.\n"
        "Removed /etc/resolver/tarnvale.\n"
        "Removed /etc/resolver/.tvx.0123456789abcdef.\n"
        "Removed /etc/resolver/.tarnvale.fedcba9876543210.\n"
        "Removed /etc/.pf.conf.0000000000000000.\n"
        "Removed /Library/Application Support/Tarnvale.\n"
        "Removed /var/log/tarnvale-adminhelper.log.\n"
        "Removed /Applications/Tarnvale.app.\n");
    EXPECT_THAT(pfctl.calls(), ElementsAre(flush));
    EXPECT_EQ(contentOf("/tmp/launchctl.calls"), std::string(bootout) + print);
    for (const char* folder :
         {"/Library/LaunchDaemons",
          "/Library/Application Support",
          "/Applications",
          "/usr/local/bin",
          "/etc/resolver"}) {
        EXPECT_THAT(namesIn(folder), IsEmpty()) << folder;
    }
    for (const char* gone : {logPath.c_str(), job, "/tmp/receipt", leftovers.back()}) {
        EXPECT_FALSE(exists(gone)) << gone;
    }
}

TEST_F(UninstallTest, FindsNothingToDoTheSecondTime) {
    installEverything();
    uninstall();

    const Finished second = uninstall();

    EXPECT_EQ(second.output + second.error, "");
    EXPECT_EQ(second.status, 0);
}

TEST_F(UninstallTest, WaitsUntilTheHelperHasEnded) {
    put(job, "2\n");

    EXPECT_EQ(uninstall().status, 0);

    EXPECT_EQ(contentOf("/tmp/launchctl.calls"), std::string(bootout) + print + print + print);
}

TEST_F(UninstallTest, LeavesAloneWhatIsNotOurs) {
    link("tarnvale", "/opt/other/Tarnvale.app/Contents/Helpers/other");
    link("tx", "/Tarnvale.app/Contents/Helpers/tvx");
    put("/usr/local/bin/tvx", "a program");
    put("/usr/local/bin/txr/inside", "");
    put("/etc/resolver/tvx", "nameserver 10.0.0.1\n");
    put("/etc/resolver/other", "# Installed by Tarnvale\n");
    put("/etc/resolver/.tvx.0123456789abcde", "");
    put("/etc/resolver/.tvx.0123456789abcdef0", "");
    put("/etc/resolver/.tvx.0123456789abcdeX", "");
    put("/Library/Application Support/Other/kept", "");

    const Finished finished = uninstall();

    EXPECT_EQ(finished.output + finished.error, "");
    EXPECT_EQ(finished.status, 0);
    EXPECT_THAT(namesIn("/usr/local/bin"), ElementsAre("tarnvale", "tvx", "tx", "txr"));
    EXPECT_THAT(
        namesIn("/etc/resolver"),
        ElementsAre(
            ".tvx.0123456789abcde",
            ".tvx.0123456789abcdeX",
            ".tvx.0123456789abcdef0",
            "other",
            "tvx"));
    EXPECT_TRUE(exists("/Library/Application Support/Other/kept"));
}

TEST_F(UninstallTest, FollowsNoLink) {
    put("/tmp/elsewhere/kept", "");
    fs::create_directories("/Library/Application Support");
    fs::create_directory_symlink("/tmp/elsewhere", supportFolder);
    fs::remove("/usr/local/bin");
    fs::create_directories("/tmp/bin");
    fs::create_symlink(tool, "/tmp/bin/tvx");
    fs::create_directory_symlink("/tmp/bin", "/usr/local/bin");

    const Finished finished = uninstall();

    EXPECT_EQ(finished.output, "Removed /Library/Application Support/Tarnvale.\n");
    EXPECT_EQ(finished.error, "");
    EXPECT_TRUE(exists("/tmp/elsewhere/kept"));
    EXPECT_TRUE(fs::is_symlink("/tmp/bin/tvx"));
}

TEST_F(UninstallTest, NeedsNoFolderThatIsMissing) {
    fs::remove_all("/usr/local");
    fs::remove_all("/etc/resolver");

    const Finished finished = uninstall();

    EXPECT_EQ(finished.output + finished.error, "");
    EXPECT_EQ(finished.status, 0);
}

TEST_F(UninstallTest, DoesNothingWhileThereAreVLANsOfOurs) {
    installEverything();
    put(supportFolder + "/vlans.json",
        R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0"},)"
        R"({"parentBSD" : "en0", "tag" : 6, "bsdName" : "vlan7"},)"
        R"({"bsdName":"vlan1","tag":7,"parentBSD":"en0"}])");

    const Finished finished = uninstall();

    EXPECT_EQ(
        finished.error,
        "uninstall: Tarnvale made these VLANs: vlan0 vlan7\n"
        "uninstall: delete them in Tarnvale first, or keep them with --keep-vlans\n");
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.status, 1);
    EXPECT_TRUE(exists(helper));
    EXPECT_TRUE(exists(job));
    EXPECT_THAT(pfctl.calls(), IsEmpty());

    EXPECT_EQ(uninstall({"--keep-vlans"}).status, 0);
    EXPECT_FALSE(exists(supportFolder));
}

TEST_F(UninstallTest, IsNotKeptByVLANsThatAreGone) {
    put(supportFolder + "/vlans.json", R"([{"bsdName":"vlan1","tag":7,"parentBSD":"en0"}])");

    EXPECT_EQ(uninstall().status, 0);

    EXPECT_FALSE(exists(supportFolder));
}

TEST_F(UninstallTest, KeepsTheApplicationOnRequest) {
    installEverything();

    EXPECT_EQ(uninstall({"--keep-app"}).status, 0);

    EXPECT_TRUE(exists(helper));
    EXPECT_FALSE(exists(jobPlist));
}

TEST_F(UninstallTest, DoesNothingIfItMayNotRemoveTheApplication) {
    installEverything();
    for (const std::string command : {"rmdir", "mkdir"}) {
        fs::remove("/usr/bin/" + command);
        putScript(
            "/usr/bin/" + command,
            "echo \"${0##*/}: $*: Operation not permitted\" | sed 's|-p ||' >&2; exit 1\n");

        const Finished finished = uninstall();

        EXPECT_THAT(
            finished.error,
            StartsWith(
                "uninstall: /Applications/Tarnvale.app can't be removed, so nothing was: " +
                command + ": /Applications/Tarnvale.app/.uninstall: Operation not permitted\n"));
        EXPECT_THAT(
            finished.error, HasSubstr("System Settings, Privacy & Security, App Management"));
        EXPECT_EQ(finished.output, "");
        EXPECT_EQ(finished.status, 1);
    }
    for (const char* stays : {job, "/tmp/receipt", jobPlist, helper, storePath.c_str()}) {
        EXPECT_TRUE(exists(stays)) << stays;
    }
    EXPECT_TRUE(fs::is_symlink("/usr/local/bin/tvx"));
    EXPECT_FALSE(exists("/tmp/launchctl.calls"));
    EXPECT_THAT(pfctl.calls(), IsEmpty());
}

TEST_F(UninstallTest, NeedNotRemoveAnApplicationThatItKeeps) {
    installEverything();
    fs::remove("/usr/bin/mkdir");
    putScript("/usr/bin/mkdir", "exit 1\n");

    EXPECT_EQ(uninstall({"--keep-app"}).status, 0);

    EXPECT_TRUE(exists(helper));
    EXPECT_FALSE(exists(supportFolder));
}

TEST_F(UninstallTest, TellsWhatItCouldNotDoAndDoesTheRest) {
    installEverything();
    pfctl.answer(flush, "echo 'pfctl: Resource busy' >&2; exit 1");

    const Finished finished = uninstall();

    EXPECT_EQ(
        finished.error,
        "uninstall: could not empty pf's anchor com.apple/900.tarnvale.firewall: pfctl: Resource "
        "busy\n");
    EXPECT_EQ(finished.status, 1);
    EXPECT_FALSE(exists(supportFolder));
    EXPECT_FALSE(exists(helper));
}

TEST_F(UninstallTest, RunsToItsEndFromTheFolderThatItRemoves) {
    installEverything();
    const std::string inside = "/Applications/Tarnvale.app/Contents/Resources/uninstall";
    put(inside, contentOf(script));
    fs::permissions(inside, fs::perms(0755));

    const Finished finished = run({inside});

    EXPECT_EQ(finished.error, "");
    EXPECT_EQ(finished.status, 0);
    EXPECT_FALSE(exists("/Applications/Tarnvale.app"));
    EXPECT_FALSE(exists("/tmp/receipt"));
}

TEST_F(UninstallTest, RefusesAnOptionThatItDoesNotKnow) {
    installEverything();

    const Finished finished = uninstall({"--keep-app", "--help"});

    EXPECT_EQ(finished.error, "usage: uninstall [--keep-app] [--keep-vlans]\n");
    EXPECT_EQ(finished.status, 2);
    EXPECT_TRUE(exists(job));
    EXPECT_TRUE(exists(jobPlist));
}

TEST_F(UninstallTest, IsForRootAlone) {
    TARNVALE_NEEDS(owners);
    installEverything();
    const std::string copy = "/tmp/uninstall";  // the sources may be root's own
    put(copy, contentOf(script));
    fs::permissions(copy, fs::perms(0755));
    fs::permissions("/tmp", fs::perms(01777));

    const Finished finished =
        run({"/usr/bin/setpriv", "--reuid=1501", "--regid=20", "--clear-groups", copy});

    EXPECT_EQ(finished.error, "uninstall: must run as root\n");
    EXPECT_EQ(finished.status, 1);
    EXPECT_TRUE(exists(job));
}

}  // namespace
}  // namespace tarnvale::test
