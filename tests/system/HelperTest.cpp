// SPDX-License-Identifier: MIT
//
// The whole helper, as it is shipped, run from the command line against a scripted pfctl.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/KillEverywhere.h"
#include "tests/support/Pattern.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/ScriptedPfctl.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale {
namespace {

namespace fs = std::filesystem;
using test::contentOf;
using test::exists;
using test::Finished;
using test::logMessages;
using test::logPath;
using test::modeOf;
using test::namesIn;
using test::put;
using test::rulesetPath;
using test::ScriptedPfctl;
using test::storePath;
using test::supportFolder;
using test::pfctlCall::enable;
using test::pfctlCall::flushLegacy;
using test::pfctlCall::load;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* helperPath = TARNVALE_BIN_DIR "/TarnvaleAdminHelper";
constexpr const char* mustBeRoot = "TarnvaleAdminHelper must run as root (launchd LaunchDaemon).\n";

/// A store of one user's two networks, one of them off: the whole text, which the tests also cut
/// off at many places.
constexpr std::string_view store = R"({"owners":{"501":{"appliedAt":763636013.25,"policies":[
    {"networkID":"6F1C2E0A-9B7D-4E53-8A21-0C5D9E7F1A2B","name":"Büro \"A\"",
     "subnetCIDR":"192.168.64.0/24","gatewayIPv4":"192.168.64.1","dnsProxyEnabled":true,
     "policy":{"enabled":true,"defaultInbound":"deny","defaultOutbound":"allow","rules":[
        {"id":"0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F","enabled":true,"direction":"inbound",
         "action":"allow","proto":"tcp","remoteCIDR":"10.0.0.0/8","ports":"22"}]}},
    {"networkID":"A3B5C7D9-1122-4344-9566-778899AABBCC","name":"Lab",
     "subnetCIDR":"192.168.65.0/24","dnsProxyEnabled":false,
     "policy":{"enabled":false,"defaultInbound":"allow","defaultOutbound":"allow","rules":[]}}
    ]}}})";

/// What is enforced of it.
constexpr std::string_view ruleset =
    "# Tarnvale network firewall — generated TIME.\n"
    "# Loaded into pf anchor \"com.apple/900.tarnvale.firewall\" by TarnvaleAdminHelper. Do not "
    "edit.\n"
    "\n"
    "# --- Büro \"A\" (192.168.64.0/24) ---\n"
    "pass in quick proto udp from 192.168.64.0/24 port 68 to any port 67 keep state\n"
    "pass out quick proto udp from any port 67 to 192.168.64.0/24 port 68\n"
    "pass in quick proto udp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
    "pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
    "pass out quick proto tcp from 10.0.0.0/8 to 192.168.64.0/24 port 22 keep state\n"
    "pass in quick from 192.168.64.0/24 to any keep state\n"
    "block drop out quick from any to 192.168.64.0/24\n"
    "\n";

Finished helper(const std::vector<std::string>& arguments) {
    return test::run(test::with({helperPath}, arguments));
}

/// Runs a copy of it as a user who is not root: such a user can't reach every build folder.
Finished helperAsNobody(const std::vector<std::string>& arguments) {
    const std::string copy = "/tmp/TarnvaleAdminHelper";
    fs::copy_file(helperPath, copy, fs::copy_options::overwrite_existing);
    return test::run(test::with(
        {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", copy}, arguments));
}

/// Runs shell commands in which "$0" is the helper.
Finished shell(const std::string& commands) {
    return test::run({"/bin/sh", "-c", commands, helperPath});
}

/// The ruleset's file, its time replaced by a word.
std::string writtenRuleset() {
    static const test::Pattern time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)");
    return time.replaceAll(contentOf(rulesetPath), "TIME");
}

constexpr const char* appliedLine =
    "Applied firewall. Enforcing 1 network for all users: Büro \"A\"";
constexpr const char* reappliedLine =
    "Boot re-apply: Enforcing 1 network for all users: Büro \"A\"";

MATCHER_P3(Ended, status, output, error, "") {
    return testing::ExplainMatchResult(
        AllOf(
            Field("status", &Finished::status, status),
            Field("output", &Finished::output, output),
            Field("error", &Finished::error, error)),
        arg,
        result_listener);
}

class HelperTest : public testing::Test {
protected:
    /// Re-applies what is stored; the program succeeds silently, whatever happens.
    static void reapply() { EXPECT_THAT(helper({"--reapply"}), Ended(0, "", "")); }

    ScriptedPfctl pfctl;
};

TEST_F(HelperTest, PrintsItsVersionForEverybody) {
    EXPECT_THAT(helper({"--version"}), Ended(0, test::helperVersion() + "\n", ""));
    EXPECT_THAT(helper({"--version", "--reapply"}), Ended(0, test::helperVersion() + "\n", ""));
    if (test::isRealRoot()) {
        EXPECT_THAT(helperAsNobody({"--version"}), Ended(0, test::helperVersion() + "\n", ""));
    }
}

TEST_F(HelperTest, DoesNothingElseForAnOrdinaryUser) {
    TARNVALE_NEEDS(owners);
    put(storePath, store);
    const std::vector<std::vector<std::string>> commandLines = {
        {"--status"}, {"--reapply"}, {}, {""}, {"--help"}, {"--reapply", "--version"}};
    for (const auto& arguments : commandLines) {
        EXPECT_THAT(helperAsNobody(arguments), Ended(1, "", mustBeRoot));
    }

    EXPECT_THAT(pfctl.calls(), IsEmpty());
    EXPECT_FALSE(exists(logPath));
}

TEST_F(HelperTest, GoesByWhoStartedItAndNotByASetUserIDBit) {
    TARNVALE_NEEDS(owners);

    EXPECT_THAT(
        test::run({"/usr/bin/setpriv", "--ruid=65534", helperPath, "--status"}),
        Ended(1, "", mustBeRoot));
}

TEST_F(HelperTest, KnowsItsArgumentsByTheirExactSpelling) {
    TARNVALE_NEEDS(owners);
    for (const std::string other :
         {"-version", "--versions", "--version=1", "--VERSION", " --version"}) {
        EXPECT_THAT(helperAsNobody({other}), Ended(1, "", mustBeRoot)) << other;
    }
}

TEST_F(HelperTest, ReappliesWhatIsStored) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        ::umask(mask);
        fs::remove_all(supportFolder);
        fs::remove(logPath);
        put(storePath, store);
        pfctl.forgetCalls();

        reapply();

        EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load, enable));
        EXPECT_THAT(logMessages(), ElementsAre(appliedLine, reappliedLine));
        EXPECT_EQ(writtenRuleset(), ruleset);
        EXPECT_EQ(contentOf(storePath), store);
        EXPECT_THAT(
            namesIn(supportFolder), ElementsAre("firewall-policies.json", "firewall.pf.conf"));
        EXPECT_EQ(modeOf(rulesetPath), 0644U) << mask;
        EXPECT_EQ(modeOf(logPath), 0644U) << mask;
        EXPECT_FALSE(exists("/etc/pf.conf"));
    }
}

TEST_F(HelperTest, ReappliesNothingWhenNothingIsStored) {
    reapply();

    EXPECT_THAT(pfctl.calls(), IsEmpty());
    EXPECT_FALSE(exists(logPath));
    EXPECT_FALSE(exists("/Library"));
}

TEST_F(HelperTest, RemovesTheLegacyReferencesOnTheWay) {
    put(storePath, store);
    put("/etc/pf.conf", "scrub-anchor \"com.apple/*\"\nanchor \"com.tarnvale.firewall\"\n");
    put("/etc/pf.anchors/com.tarnvale.firewall", "pass\n");

    reapply();

    EXPECT_EQ(contentOf("/etc/pf.conf"), "scrub-anchor \"com.apple/*\"\n");
    EXPECT_EQ(
        contentOf(test::backupPath),
        "scrub-anchor \"com.apple/*\"\nanchor \"com.tarnvale.firewall\"\n");
    EXPECT_FALSE(exists("/etc/pf.anchors/com.tarnvale.firewall"));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Removed legacy anchor references from /etc/pf.conf.", appliedLine, reappliedLine));
}

TEST_F(HelperTest, TriesAgainWhilePfIsBusy) {
    put(storePath, store);
    pfctl.answer(
        ScriptedPfctl::load,
        "[ $n -ge 4 ] || { echo 'pfctl: DIOCXCOMMIT: Resource busy' >&2; exit 1; }");

    reapply();

    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load, load, load, enable));
    EXPECT_THAT(
        logMessages(),
        ElementsAre("pf was busy; the ruleset loaded on attempt 3.", appliedLine, reappliedLine));
}

TEST_F(HelperTest, LogsWhatPfctlHasAgainstTheRuleset) {
    put(storePath, store);
    pfctl.answer(
        ScriptedPfctl::load,
        "echo 'No ALTQ support in kernel' >&2\n"
        "echo \"$4:7: syntax error\" >&2\n"
        "exit 1");

    reapply();

    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load));
    EXPECT_EQ(
        logMessages().back(),
        "Boot re-apply failed: pfctl rejected the ruleset: /Library/Application "
        "Support/Tarnvale/firewall.pf.conf:7: syntax error");
}

TEST_F(HelperTest, IsNotStuckByAFloodOfErrors) {
    put(storePath, store);
    pfctl.answer("*", "head -c 10485760 /dev/zero | tr '\\0' e >&2");

    reapply();

    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load, enable));
    EXPECT_THAT(logMessages(), ElementsAre(appliedLine, reappliedLine));
}

TEST_F(HelperTest, LogsThatPfctlIsMissingOrNoProgram) {
    put(storePath, store);
    fs::permissions("/sbin/pfctl", fs::perms(0644));
    reapply();
    fs::remove("/sbin/pfctl");
    reapply();

    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Boot re-apply failed: pfctl rejected the ruleset: The file “pfctl” couldn’t be "
            "opened because you don’t have permission to view it.",
            "Boot re-apply failed: pfctl rejected the ruleset: The file “pfctl” doesn’t exist."));
}

TEST_F(HelperTest, LeavesPfAloneWhenTheStoreIsDamaged) {
    for (std::size_t length = 0; length < store.size(); length += 37) {
        put(storePath, store.substr(0, length));

        reapply();

        EXPECT_EQ(contentOf(storePath), store.substr(0, length));
    }

    EXPECT_THAT(pfctl.calls(), IsEmpty());
    EXPECT_FALSE(exists(rulesetPath));
    EXPECT_THAT(
        logMessages(),
        AllOf(
            SizeIs((store.size() + 36) / 37),
            Each("Persisted firewall policy could not be decoded; leaving pf alone.")));
}

TEST_F(HelperTest, LeavesPfAloneWhenTheStoreIsNoFile) {
    fs::create_directories(storePath);
    reapply();
    fs::remove(storePath);
    ASSERT_EQ(::mkfifo(storePath.c_str(), 0600), 0);
    reapply();

    EXPECT_THAT(pfctl.calls(), IsEmpty());
    EXPECT_FALSE(exists(logPath));
}

TEST_F(HelperTest, LogsThatTheDiskIsFullAndKeepsTheOldRuleset) {
    TARNVALE_NEEDS(mounts);
    fs::create_directories(supportFolder);
    ASSERT_EQ(::mount("small", supportFolder.c_str(), "tmpfs", 0, "size=16k"), 0);
    put(storePath, store);
    put(rulesetPath, "# old\n");
    put(supportFolder + "/fill", std::string(8192, 'x'));

    reapply();

    EXPECT_THAT(pfctl.calls(), IsEmpty());
    EXPECT_EQ(contentOf(rulesetPath), "# old\n");
    EXPECT_THAT(
        namesIn(supportFolder), ElementsAre("fill", "firewall-policies.json", "firewall.pf.conf"));
    EXPECT_THAT(
        logMessages(),
        ElementsAre("Boot re-apply failed: You can’t save the file “firewall.pf.conf” because the "
                    "volume “/Library/Application Support/Tarnvale” is out of space."));
}

TEST_F(HelperTest, WorksWithoutALogToWriteTo) {
    TARNVALE_NEEDS(mounts);
    put(storePath, store);
    put("/tmp/target", "kept\n");
    fs::create_symlink("/tmp/target", logPath);
    reapply();
    fs::remove(logPath);
    ASSERT_EQ(::mkfifo(logPath.c_str(), 0600), 0);
    reapply();
    fs::remove(logPath);
    fs::create_directory(logPath);
    reapply();
    ASSERT_EQ(::mount("small", "/var/log", "tmpfs", MS_RDONLY, nullptr), 0);
    reapply();

    EXPECT_THAT(pfctl.calls(), SizeIs(12));
    EXPECT_EQ(contentOf("/tmp/target"), "kept\n");
}

TEST_F(HelperTest, PrintsWhatPfAndTheAnchorHold) {
    pfctl.answer(
        "-si",
        "printf 'Status: Enabled for 0 days 00:00:05\\n\\nState Table\\nsearches 3\\n'; echo no "
        ">&2");
    pfctl.answer(
        "-a com.apple/900.tarnvale.firewall -v -sr",
        "echo 'pass in quick all'; echo '  [ Packets: 3 ]'; echo 'No ALTQ support' >&2");

    EXPECT_THAT(
        helper({"--status"}),
        Ended(
            0,
            "== pf status ==\n"
            "Status: Enabled for 0 days 00:00:05\n"
            "State Table\n"
            "\n"
            "== com.apple/900.tarnvale.firewall ==\n"
            "pass in quick all\n"
            "  [ Packets: 3 ]\n"
            "No ALTQ support\n",
            ""));
    EXPECT_THAT(pfctl.calls(), ElementsAre("-si", "-a com.apple/900.tarnvale.firewall -v -sr"));
    EXPECT_FALSE(exists(logPath));
}

TEST_F(HelperTest, PrintsThatPfctlIsMissing) {
    fs::remove("/sbin/pfctl");

    EXPECT_THAT(
        helper({"--status"}),
        Ended(
            0,
            "== pf status ==\n"
            "\n"
            "\n"
            "== com.apple/900.tarnvale.firewall ==\n"
            "The file “pfctl” doesn’t exist.\n",
            ""));
}

TEST_F(HelperTest, WaitsForItsChildrenWhateverWhoeverStartedItIgnores) {
    put(storePath, store);

    EXPECT_EQ(shell("exec env --ignore-signal=CHLD \"$0\" --reapply").status, 0);

    EXPECT_THAT(logMessages(), ElementsAre(appliedLine, reappliedLine));
}

TEST_F(HelperTest, LivesWithOutputThatNobodyTakes) {
    EXPECT_EQ(shell("\"$0\" --status >/dev/full").status, 0);
    EXPECT_EQ(
        shell("{ sleep 0.05; \"$0\" --status; echo $? >/tmp/status; } | :; cat /tmp/status").output,
        "0\n");
}

TEST_F(HelperTest, TakesNoFileForAMissingStandardDescriptor) {
    put(storePath, store);
    pfctl.answer("*", "echo text; echo errors >&2; ls -l /proc/self/fd/0 >>/run/inputs 2>&1");

    EXPECT_EQ(shell("exec \"$0\" --reapply <&- >&- 2>&-").status, 0);

    EXPECT_EQ(writtenRuleset(), ruleset);
    EXPECT_EQ(contentOf(storePath), store);
    EXPECT_THAT(logMessages(), ElementsAre(appliedLine, reappliedLine));
    EXPECT_THAT(contentOf("/run/inputs"), HasSubstr("/dev/null"));
}

TEST_F(HelperTest, ReappliesOfSeveralProcessesNeverInterleave) {
    put(storePath, store);
    pfctl.answer(flushLegacy, "echo begin $PPID >>/run/turns; sleep 0.02");
    pfctl.answer(enable, "echo end $PPID >>/run/turns");

    EXPECT_EQ(shell("for i in 1 2 3 4; do \"$0\" --reapply & done; wait").status, 0);

    std::string turns = contentOf("/run/turns");
    EXPECT_EQ(std::count(turns.begin(), turns.end(), '\n'), 8);
    EXPECT_TRUE(test::Pattern(R"((begin (\d+)\nend \2\n)(begin (\d+)\nend \4\n)+)").matches(turns))
        << turns;
    EXPECT_THAT(logMessages(), SizeIs(8));
}

TEST_F(HelperTest, ADeathAtAnyInstantHarmsNothing) {
    const auto prepare = [] {
        fs::remove_all(supportFolder);
        put(storePath, store);
        put(rulesetPath, "# old\n");
    };
    // A sanitizer's leak check can't trace a process that is traced already.
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);

    const int deaths = test::killAtEverySystemCall(
        prepare,
        [] {
            test::beginKilling();
            ::execl(helperPath, helperPath, "--reapply", nullptr);
            throw std::runtime_error("no helper");
        },
        [] {
            while (::wait(nullptr) >= 0) {
            }
            EXPECT_EQ(contentOf(storePath), store);
            if (contentOf(rulesetPath) != "# old\n") {
                EXPECT_EQ(writtenRuleset(), ruleset);
            }
            EXPECT_NO_THROW(logMessages());
        });
    EXPECT_GE(deaths, 50);

    reapply();
    EXPECT_EQ(writtenRuleset(), ruleset);
}

TEST_F(HelperTest, ServesWithoutAnArgumentAndWithOneThatItDoesntKnow) {
    put(storePath, store);
    const std::vector<std::vector<std::string>> commandLines = {
        {helperPath}, {helperPath, ""}, {helperPath, "--versions"}, {helperPath, "-version"}};
    for (const auto& commandLine : commandLines) {
        fs::remove(logPath);

        test::Program service(commandLine);
        while (service.running() && logMessages().size() < 3) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }

        EXPECT_TRUE(service.running());
        EXPECT_THAT(
            logMessages(),
            ElementsAre(
                appliedLine,
                reappliedLine,
                "Helper 7 listening on com.brackwen.tarnvale.adminhelper."));
    }
}

}  // namespace
}  // namespace tarnvale
