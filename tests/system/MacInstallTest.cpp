// SPDX-License-Identifier: MIT
//
// The scripts that sign, install and package the helper on a Mac. Scripts that remember how they
// were called play the commands that only a Mac has.

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr const char* packaging = TARNVALE_SOURCE_DIR "/packaging/macos/";
constexpr const char* plistName = "com.brackwen.tarnvale.adminhelper.plist";
constexpr const char* daemonPlist =
    "/Library/LaunchDaemons/com.brackwen.tarnvale.adminhelper.plist";
constexpr const char* callsPath = "/tmp/calls";
constexpr const char* helpers = "/Applications/Tarnvale.app/Contents/Helpers";

Finished runScript(const std::string& name, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), packaging + name);
    return run(arguments);
}

class MacScriptsTest : public testing::Test {
protected:
    MacScriptsTest() {
        for (const char* name : {"codesign", "lipo", "launchctl", "plutil"}) {
            play(name, "");
        }
        putScript("/tmp/bin/TarnvaleAdminHelper", "echo 1.4.0\n");
        putScript("/tmp/bin/tarnvale-helperctl", "");
    }

    /// Puts a command in place that remembers its call and then does this.
    static void play(const std::string& name, const std::string& commands) {
        putScript("/usr/bin/" + name, "echo \"" + name + " $*\" >>/tmp/calls\n" + commands);
    }

    static std::string calls() { return exists(callsPath) ? contentOf(callsPath) : ""; }
};

using SignTest = MacScriptsTest;

TEST_F(SignTest, GivesEachProgramItsIdentifierAndTheHardenedRuntime) {
    const Finished finished =
        runScript("sign", {"-", "/tmp/bin/TarnvaleAdminHelper", "/tmp/bin/tarnvale-helperctl"});

    EXPECT_EQ(finished.error, "");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(
        calls(),
        "lipo /tmp/bin/TarnvaleAdminHelper -verify_arch arm64 x86_64\n"
        "codesign --force --sign - --identifier com.brackwen.tarnvale.adminhelper --options "
        "runtime "
        "--timestamp=none /tmp/bin/TarnvaleAdminHelper\n"
        "codesign --verify --strict --verbose=2 /tmp/bin/TarnvaleAdminHelper\n"
        "lipo /tmp/bin/tarnvale-helperctl -verify_arch arm64 x86_64\n"
        "codesign --force --sign - --identifier com.brackwen.tarnvale.service --options runtime "
        "--timestamp=none /tmp/bin/tarnvale-helperctl\n"
        "codesign --verify --strict --verbose=2 /tmp/bin/tarnvale-helperctl\n");
}

TEST_F(SignTest, AsksForATimestampForWhatIsDistributed) {
    runScript("sign", {"Developer ID Application: X (K7PD2QM4TZ)", "/tmp/bin/TarnvaleAdminHelper"});
    EXPECT_THAT(calls(), HasSubstr(" --timestamp /tmp/bin/TarnvaleAdminHelper\n"));
}

TEST_F(SignTest, SignsNothingThatIsBuiltForOneProcessor) {
    play("lipo", "exit 1\n");

    const Finished finished = runScript("sign", {"-", "/tmp/bin/TarnvaleAdminHelper"});

    EXPECT_EQ(
        finished.error, "sign: /tmp/bin/TarnvaleAdminHelper is not built for arm64 and x86_64\n");
    EXPECT_EQ(finished.status, 1);
    EXPECT_THAT(calls(), Not(HasSubstr("codesign")));
}

TEST_F(SignTest, SignsNoOtherProgram) {
    const Finished finished = runScript("sign", {"-", "/tmp/bin/pfctl"});

    EXPECT_EQ(finished.error, "sign: /tmp/bin/pfctl is no program of this project\n");
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(calls(), "");
}

class InstallTest : public MacScriptsTest {
protected:
    InstallTest() {
        fs::create_directories("/Library/LaunchDaemons");
        put("/etc/group", contentOf("/etc/group") + "\nwheel:x:0:\n");
        play("launchctl", "[ \"$1\" != print ]\n");
    }
};

TEST_F(InstallTest, PutsTheProgramsWhereTheApplicationHasThemAndStartsTheHelper) {
    ::umask(077);

    const Finished finished = runScript("install", {"/tmp/bin"});

    EXPECT_EQ(finished.error, "");
    EXPECT_EQ(finished.output, "install: 1.4.0 serves as com.brackwen.tarnvale.adminhelper\n");
    EXPECT_EQ(finished.status, 0);
    EXPECT_THAT(namesIn(helpers), ElementsAre("TarnvaleAdminHelper", "tarnvale-helperctl"));
    for (fs::path path = std::string(helpers) + "/TarnvaleAdminHelper"; path != "/Applications";
         path = path.parent_path()) {
        EXPECT_EQ(modeOf(path), 0755U) << path;
    }
    EXPECT_EQ(modeOf(daemonPlist), 0644U);
    EXPECT_EQ(
        calls(),
        "codesign --verify --strict /tmp/bin/TarnvaleAdminHelper\n"
        "codesign --verify --strict /tmp/bin/tarnvale-helperctl\n"
        "launchctl bootout system/com.brackwen.tarnvale.adminhelper\n"
        "launchctl print system/com.brackwen.tarnvale.adminhelper\n"
        "plutil -lint -s /Library/LaunchDaemons/com.brackwen.tarnvale.adminhelper.plist\n"
        "launchctl enable system/com.brackwen.tarnvale.adminhelper\n"
        "launchctl bootstrap system "
        "/Library/LaunchDaemons/com.brackwen.tarnvale.adminhelper.plist\n");
}

TEST_F(InstallTest, NamesTheHelperByItsPathAndChangesNothingElse) {
    runScript("install", {"/tmp/bin"});

    std::string expected = contentOf(std::string(packaging) + plistName);
    const std::string key = "<key>BundleProgram</key>";
    const std::string value = "<string>Contents/";
    expected.replace(expected.find(key), key.size(), "<key>Program</key>");
    expected.replace(
        expected.find(value), value.size(), "<string>/Applications/Tarnvale.app/Contents/");
    EXPECT_EQ(contentOf(daemonPlist), expected);
}

TEST_F(InstallTest, ReplacesAnEarlierTrial) {
    runScript("install", {"/tmp/bin"});
    const std::string helper = std::string(helpers) + "/TarnvaleAdminHelper";
    fs::create_hard_link(helper, "/Applications/old");  // so that its inode is not used again
    struct stat before {};
    ASSERT_EQ(::stat(helper.c_str(), &before), 0);

    EXPECT_EQ(runScript("install", {"/tmp/bin"}).status, 0);

    struct stat after {};
    ASSERT_EQ(::stat(helper.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino) << "written into, which the kernel takes for tampering";
}

TEST_F(InstallTest, LeavesTheApplicationAlone) {
    put("/Applications/Tarnvale.app/Contents/Info.plist", "");

    const Finished finished = runScript("install", {"/tmp/bin"});

    EXPECT_EQ(
        finished.error,
        "install: /Applications/Tarnvale.app is the application; remove it first\n");
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(calls(), "");
    EXPECT_FALSE(exists(daemonPlist));
}

TEST_F(InstallTest, InstallsNothingThatIsNotSigned) {
    play("codesign", "[ \"${3##*/}\" != tarnvale-helperctl ]\n");

    const Finished finished = runScript("install", {"/tmp/bin"});

    EXPECT_EQ(finished.error, "install: tarnvale-helperctl is not signed\n");
    EXPECT_EQ(finished.status, 1);
    EXPECT_FALSE(exists("/Applications/Tarnvale.app"));
}

class MakePkgTest : public MacScriptsTest {
protected:
    MakePkgTest() {
        put(app + "/Contents/Info.plist", "");
        putScript(app + "/Contents/Helpers/TarnvaleAdminHelper", "echo 1.4.0\n");
        put(app + "/Contents/Library/LaunchDaemons/" + plistName,
            contentOf(std::string(packaging) + plistName));
        play(
            "codesign",
            "[ \"$1\" != --display ] || "
            "echo 'CodeDirectory v=20500 size=9 flags=0x10000(runtime) hashes=9+7' >&2\n");
        play("plutil", "[ \"$1\" != -extract ] || echo 1.4.0\n");
        play("ditto", "cp -R \"$1\" \"$2\"\n");
        for (const char* name : {"pkgbuild", "productbuild", "pkgutil"}) {
            play(name, "");
        }
    }

    static Finished makePkg(const std::string& identity = {}) {
        std::vector<std::string> arguments = {app, "/tmp/Tarnvale.pkg"};
        if (!identity.empty()) {
            arguments.push_back(identity);
        }
        return runScript("make-pkg", arguments);
    }

    static void expectRefusal(const std::string& sentence) {
        const Finished finished = makePkg();
        EXPECT_EQ(finished.error, "make-pkg: " + sentence + "\n");
        EXPECT_EQ(finished.status, 1);
        EXPECT_THAT(calls(), Not(HasSubstr("pkgbuild")));
    }

    // NOLINTNEXTLINE(cert-err58-cpp): a test program without memory for it may end
    inline static const std::string app = "/tmp/Tarnvale.app";
};

TEST_F(MakePkgTest, MakesAPackageOfTheApplication) {
    const Finished finished = makePkg();

    EXPECT_EQ(finished.error, "");
    EXPECT_THAT(finished.output, EndsWith("make-pkg: /tmp/Tarnvale.pkg, version 1.4.0\n"));
    EXPECT_EQ(finished.status, 0);
    EXPECT_THAT(calls(), HasSubstr("\nplutil -replace 0.BundleIsRelocatable -bool NO "));
    EXPECT_THAT(
        calls(),
        HasSubstr(
            " --ownership recommended --install-location / --identifier com.brackwen.tarnvale.pkg "
            "--version 1.4.0 "));
    EXPECT_THAT(calls(), Not(HasSubstr("--sign")));
}

TEST_F(MakePkgTest, SignsThePackageOfADeveloperIDApplication) {
    const Finished finished = makePkg("Developer ID Installer: X");

    EXPECT_EQ(finished.error, "");
    EXPECT_THAT(
        calls(), HasSubstr(" --sign Developer ID Installer: X --timestamp /tmp/Tarnvale.pkg\n"));
    EXPECT_THAT(calls(), EndsWith("\npkgutil --check-signature /tmp/Tarnvale.pkg\n"));
}

TEST_F(MakePkgTest, RefusesToSignWhatIsNotSignedWithDeveloperID) {
    play(
        "codesign",
        "case $* in\n"
        "*6.1.13*) exit 3 ;;\n"
        "--display*) echo 'CodeDirectory v=20500 size=9 flags=0x10000(runtime) hashes=9+7' >&2 ;;\n"
        "esac\n");

    const Finished finished = makePkg("Developer ID Installer: X");

    EXPECT_EQ(finished.error, "make-pkg: /tmp/Tarnvale.app bears no Developer ID signature\n");
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(makePkg().status, 0) << "an unsigned package is for one's own Mac";
}

TEST_F(MakePkgTest, RefusesAnApplicationWithAnotherPropertyList) {
    const std::string plist = app + "/Contents/Library/LaunchDaemons/" + plistName;
    put(plist, contentOf(plist) + "\n");

    expectRefusal(
        "/tmp/Tarnvale.app/Contents/Library/LaunchDaemons has another "
        "com.brackwen.tarnvale.adminhelper.plist");
}

TEST_F(MakePkgTest, RefusesAHelperOfAnotherVersion) {
    putScript(app + "/Contents/Helpers/TarnvaleAdminHelper", "echo 7\n");

    expectRefusal("the helper's version is not the application's");
}

TEST_F(MakePkgTest, RefusesAHelperWithoutTheHardenedRuntime) {
    play(
        "codesign",
        "[ \"$1\" != --display ] || echo 'CodeDirectory v=20500 size=9 flags=0x0(none)' >&2\n");

    expectRefusal("the helper lacks the hardened runtime");
}

TEST_F(MakePkgTest, RefusesAnApplicationThatWasChanged) {
    play("codesign", "exit 1\n");

    expectRefusal("/tmp/Tarnvale.app is not signed, or changed since");
}

}  // namespace
}  // namespace tarnvale::test
