// SPDX-License-Identifier: MIT
//
// The installed files are where others look for them. The units by which systemd starts the helper
// are right, agree with the programs, leave as little exposed as they may, and let the helper do
// all its work.

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pfctl/kernel/RunState.h"
#include "platform/linux/dbus/ListeningSocket.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr const char* analyzer = "/usr/bin/systemd-analyze";
constexpr const char* packaging = TARNVALE_SOURCE_DIR "/packaging/linux/";
constexpr const char* installedHelper = "/usr/libexec/tarnvale/TarnvaleAdminHelper";
constexpr const char* socketUnit = "tarnvale-adminhelper.socket";
constexpr const char* serviceUnit = "tarnvale-adminhelper.service";

/// The unit denies the service what a sanitizer needs.
constexpr bool isSanitized = !std::string_view(TARNVALE_SANITIZE).empty();

std::string textOf(const std::string& unit) {
    return contentOf(packaging + unit);
}

/// The files in a folder and below, each with its mode.
std::map<std::string, int> filesBelow(const fs::path& folder) {
    std::map<std::string, int> found;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            const std::string name = entry.path().string().substr(folder.string().size());
            found[name] = static_cast<int>(entry.status().permissions());
        }
    }
    return found;
}

class PackagingTest : public testing::Test {
protected:
    /// Installs the units and what they start, and asks systemd about one of them.
    static Finished ask(std::vector<std::string> question, const std::string& unit) {
        const std::string folder = "/etc/systemd/system/";
        for (const char* installed : {socketUnit, serviceUnit}) {
            put(folder + installed, textOf(installed));
        }
        fs::create_directories(fs::path(installedHelper).parent_path());
        fs::copy_file(helperProgram, installedHelper, fs::copy_options::overwrite_existing);
        question.insert(question.begin(), analyzer);
        question.push_back(folder + unit);
        return run(question);
    }
};

TEST_F(PackagingTest, TheSocketIsWhereClientsLookForIt) {
    EXPECT_THAT(
        textOf(socketUnit),
        HasSubstr(
            "\nListenStream=" + std::string(platform::listeningSocketPath) +
            "\n# Every user may connect. The helper looks at the program that calls, and then at "
            "its user.\nSocketMode=0666\n"));
}

TEST_F(PackagingTest, WhatPfctlRemembersOutlivesTheService) {
    const fs::path folder = pfctl::runFolder;

    ASSERT_EQ(folder.parent_path(), "/run");
    EXPECT_THAT(
        textOf(serviceUnit),
        HasSubstr(
            "\nRuntimeDirectory=" + folder.filename().string() +
            "\nRuntimeDirectoryMode=0700\nRuntimeDirectoryPreserve=yes\n"));
}

TEST_F(PackagingTest, NoNumberOfStartsEndsTheSocketOrTheService) {
    for (const char* unit : {socketUnit, serviceUnit}) {
        EXPECT_THAT(textOf(unit), HasSubstr("\nStartLimitIntervalSec=0\n")) << unit;
    }
    EXPECT_THAT(textOf(socketUnit), HasSubstr("\nTriggerLimitIntervalSec=0\n"));
}

TEST_F(PackagingTest, InstallingPutsEachFileWhereItIsLookedFor) {
    TARNVALE_NEEDS(trees);
    const fs::path destination = "/tmp/destination";

    Program install(
        {TARNVALE_CMAKE, "--install", TARNVALE_BINARY_DIR},
        {},
        {.environment = {"DESTDIR=" + destination.string()}, .descriptors = {}});
    const Finished installed = install.finish();

    ASSERT_EQ(installed.status, 0) << installed.output << installed.error;
    const std::string documents = "/usr/share/doc/TarnvaleAdminHelper/";
    EXPECT_THAT(
        filesBelow(destination),
        UnorderedElementsAre(
            Pair(installedHelper, 0755),
            Pair("/usr/sbin/pfctl", 0755),
            Pair("/usr/bin/tarnvale-helperctl", 0755),
            Pair("/usr/lib/systemd/system/tarnvale-adminhelper.service", 0644),
            Pair("/usr/lib/systemd/system/tarnvale-adminhelper.socket", 0644),
            Pair("/usr/share/bash-completion/completions/tarnvale-helperctl", 0644),
            Pair("/usr/share/fish/vendor_completions.d/tarnvale-helperctl.fish", 0644),
            Pair("/usr/share/zsh/vendor-completions/_tarnvale-helperctl", 0644),
            Pair("/usr/share/man/man1/tarnvale-helperctl.1", 0644),
            Pair("/usr/share/man/man5/tarnvale-policy.5", 0644),
            Pair("/usr/share/man/man8/TarnvaleAdminHelper.8", 0644),
            Pair("/usr/share/man/man8/tarnvale-pfctl.8", 0644),
            Pair("/usr/share/tarnvale/helperctl.schema.json", 0644),
            Pair("/usr/share/tarnvale/policy.schema.json", 0644),
            Pair(documents + "LICENSE", 0644),
            Pair(documents + "README.md", 0644),
            Pair(documents + "SECURITY.md", 0644),
            Pair(documents + "protocol.md", 0644),
            Pair(documents + "examples/README.md", 0644),
            Pair(documents + "examples/home.json", 0644),
            Pair(documents + "examples/isolated.json", 0644),
            Pair(documents + "examples/lab.json", 0644),
            Pair(documents + "examples/open-lab.json", 0644),
            Pair(documents + "examples/web-server.json", 0644)));
}

class SystemdAnalyzeTest : public PackagingTest {
protected:
    void SetUp() override {
        TARNVALE_NEEDS(trees);
        if (!exists(analyzer)) {
            GTEST_SKIP() << "systemd-analyze is not installed";
        }
    }
};

TEST_F(SystemdAnalyzeTest, FindsNoFaultInTheUnits) {
    for (const char* unit : {socketUnit, serviceUnit}) {
        const Finished verified = ask({"verify", "--man=no"}, unit);

        EXPECT_EQ(verified.status, 0) << unit;
        EXPECT_EQ(verified.output + verified.error, "") << unit;
    }
}

TEST_F(SystemdAnalyzeTest, CallsTheServiceExposedByTwoPointThreeAtMost) {
    const Finished rated = ask({"security", "--offline=true", "--threshold=23"}, serviceUnit);

    EXPECT_EQ(rated.status, 0) << rated.output << rated.error;
    EXPECT_THAT(
        rated.output, HasSubstr("Overall exposure level for tarnvale-adminhelper.service: "));
}

class UnderSystemdTest : public testing::Test {
protected:
    void SetUp() override {
        if (isSanitized) {
            GTEST_SKIP() << "what a sanitizer needs of the system the service doesn't get";
        }
        TARNVALE_NEEDS(mounts);
        TARNVALE_NEEDS(owners);
        const auto listed = run({pfctlProgram, "-a", "none", "-v", "-sr"});
        if (listed.status != 0) {
            GTEST_SKIP() << listed.error.substr(0, listed.error.find('\n'));
        }
    }
};

TEST_F(UnderSystemdTest, TheServiceDoesAllItsWorkInItsSandbox) {
    const std::string folder = TARNVALE_SOURCE_DIR "/tests/system/";
    const Finished walk =
        run({folder + "under-systemd", helperProgram, pfctlProgram, folder + "service-walk"});
    if (walk.status == 77) {
        GTEST_SKIP() << walk.output;
    }

    const std::string version = "ann HelperVersion: as 1 \"" + helperVersion() + "\"\n";
    const std::string listening = listeningMessage() + "\n";
    const std::string enforcing = "Enforcing 1 network for all users: Lab\n";
    EXPECT_EQ(walk.error, "");
    EXPECT_EQ(
        walk.output,
        "the service is inactive\n"
        "/run/com.brackwen.tarnvale.adminhelper.socket srw-rw-rw-\n"
        "-- requests\n" +
            version +
            "ann ApplyFirewall: asas 0 1 \"Only an administrator of this Mac can make this change "
            "through Tarnvale\\'s helper.\"\n"
            "bea ApplyFirewall: asas 1 \"Enforcing 1 network: Lab\" 0\n"
            "bea CreateVLAN: asas 0 1 \"No physical interface named none.\"\n"
            "bea InstallCLISymlink: as 0\n"
            "bea SetTarnvaleResolver: as 0\n"
            "/usr/local/bin drwxr-xr-x\n"
            "/etc/resolver/tvx -rw-r--r--\n"
            "/usr/libexec/tarnvale/tarnvale\n"
            "/etc/pf.conf -rw-r----- 1502:80\n"
            "pass\n"
            "bea RemoveCLISymlink: as 0\n"
            "bea SetTarnvaleResolver: as 0\n"
            "/etc/resolver:\n"
            "\n"
            "/usr/local/bin:\n"
            "Status: Enabled\n"
            "block drop in quick inet from 192.168.64.0/24 to 10.0.0.0/8\n"
            "-- the sandbox\n"
            "touch: cannot touch '/x': Read-only file system\n"
            "touch: cannot touch '/usr/x': Read-only file system\n"
            "touch: cannot touch '/boot/x': Read-only file system\n"
            "touch: cannot touch '/var/lib/x': Read-only file system\n"
            "touch: cannot touch '/etc/tarnvale/x': Read-only file system\n"
            "touch: cannot touch '/usr/local/lib/x': Read-only file system\n"
            "/home:\n"
            "\n"
            "/root:\n"
            "nsenter: failed to execute touch: Permission denied\n"
            "CapBnd 000000000008100b\n"
            "NoNewPrivs 1\n"
            "Seccomp 2\n"
            "-- life\n" +
            version +
            "bea ShutdownForUpgrade: \n"
            "Result=success\n"
            "enabled\n"
            "lock\n" +
            version + "started with 2 rules\nthe socket is active\n" + version + "-- log\n" +
            listening +
            "Refused applyFirewall for uid 1501: not an administrator or the console user.\n"
            "Removed legacy anchor references from /etc/pf.conf.\n"
            "Applied firewall. " +
            enforcing +
            "createVLAN failed: No physical interface named none.\n"
            "Linked /usr/local/bin/tarnvale -> /usr/libexec/tarnvale/tarnvale.\n"
            "Linked /usr/local/bin/tvx -> /usr/libexec/tarnvale/tarnvale.\n"
            "Installed /etc/resolver/tvx.\n"
            "Installed /etc/resolver/tarnvale.\n"
            "Removed /usr/local/bin/tarnvale.\n"
            "Removed /usr/local/bin/tvx.\n"
            "Removed /etc/resolver/tvx.\n"
            "Removed /etc/resolver/tarnvale.\n"
            "Applied firewall. " +
            enforcing + "Boot re-apply: " + enforcing + listening +
            "Shutdown requested for upgrade; exiting so launchd re-execs the new binary.\n"
            "Applied firewall. " +
            enforcing + "Boot re-apply: " + enforcing + listening);
}

}  // namespace
}  // namespace tarnvale::test
