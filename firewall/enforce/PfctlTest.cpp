// SPDX-License-Identifier: MIT

#include "firewall/enforce/Pfctl.h"

#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/HelperError.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/ScriptedPfctl.h"

namespace tarnvale::HelperFirewall {
namespace {

using test::logMessages;
using test::ScriptedPfctl;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::ThrowsMessage;

constexpr const char* busyUntil(int call) {
    return call == 4 ? "[ $n -ge 4 ] || { echo 'pfctl: DIOCXCOMMIT: Resource busy' >&2; exit 1; }"
                     : "echo 'pfctl: DIOCADDRULE: Resource busy' >&2; exit 1";
}

TEST(CombinedOutputTest, JoinsWhatIsNotEmpty) {
    EXPECT_EQ(combinedOutput({0, "", ""}), "");
    EXPECT_EQ(combinedOutput({0, "", " word \n"}), "word");
    EXPECT_EQ(combinedOutput({0, "\n out\t\r\n", ""}), "out");
    EXPECT_EQ(combinedOutput({0, "out\n", "\nerr\n\n"}), "out\nerr");
    EXPECT_EQ(combinedOutput({0, " \n ", "\t"}), "");
}

TEST(PfctlMessageTest, LeavesTheNoticesOut) {
    EXPECT_EQ(
        pfctlMessage("pfctl: Use of -f option, could result in flushing of rules\n"
                     "present in the main ruleset added by the system at startup.\n"
                     "/etc/x.conf:3: syntax error"),
        "/etc/x.conf:3: syntax error");
    EXPECT_EQ(
        pfctlMessage("No ALTQ support in kernel\nALTQ related functions disabled\n\n"
                     "See /etc/pf.conf for further details.\n \t\n  first\nsecond  "),
        "  first\nsecond  ");
}

TEST(PfctlMessageTest, GivesEverythingWhenThereAreOnlyNotices) {
    EXPECT_EQ(
        pfctlMessage("\nNo ALTQ support in kernel\nALTQ related functions disabled\n"),
        "No ALTQ support in kernel\nALTQ related functions disabled");
    EXPECT_EQ(pfctlMessage(""), "");
    EXPECT_EQ(pfctlMessage(" \n\t\n"), "");
}

TEST(PfctlMessageTest, KnowsTheNoticesByTheirExactCase) {
    EXPECT_EQ(pfctlMessage("no altq support\nNo ALTQ support"), "no altq support");
}

TEST(LoadRulesetFileTest, ASuccessAtOnceLogsNothing) {
    const ScriptedPfctl pfctl;

    loadRulesetFile("/tmp/rules");

    EXPECT_THAT(pfctl.calls(), ElementsAre("-a com.apple/900.tarnvale.firewall -f /tmp/rules"));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST(LoadRulesetFileTest, TriesAgainWhilePfIsBusy) {
    ScriptedPfctl pfctl;
    pfctl.answer(ScriptedPfctl::load, busyUntil(4));
    const auto started = std::chrono::steady_clock::now();

    loadRulesetFile("/tmp/rules");

    EXPECT_THAT(pfctl.calls(), SizeIs(4));
    EXPECT_THAT(logMessages(), ElementsAre("pf was busy; the ruleset loaded on attempt 4."));
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1200));
}

TEST(LoadRulesetFileTest, GivesUpAfterSixBusyAttempts) {
    ScriptedPfctl pfctl;
    pfctl.answer(ScriptedPfctl::load, busyUntil(0));

    EXPECT_THAT(
        [] { loadRulesetFile("/tmp/rules"); },
        ThrowsMessage<HelperError>(
            "pfctl rejected the ruleset: pfctl: DIOCADDRULE: Resource busy"));

    EXPECT_THAT(pfctl.calls(), SizeIs(6));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST(LoadRulesetFileTest, TakesAnyOtherFailureAtOnce) {
    ScriptedPfctl pfctl;
    pfctl.answer(
        ScriptedPfctl::load,
        "echo 'pfctl: Use of -f option, could result in flushing of rules' >&2\n"
        "echo 'present in the main ruleset added by the system at startup.' >&2\n"
        "echo '/tmp/rules:4: syntax error' >&2; exit 1");

    EXPECT_THAT(
        [] { loadRulesetFile("/tmp/rules"); },
        ThrowsMessage<HelperError>("pfctl rejected the ruleset: /tmp/rules:4: syntax error"));

    EXPECT_THAT(pfctl.calls(), SizeIs(1));
}

TEST(LoadRulesetFileTest, FindsBusyOnStandardOutputToo) {
    ScriptedPfctl pfctl;
    pfctl.answer(ScriptedPfctl::load, "[ $n -ge 2 ] || { echo 'Resource busy'; exit 1; }");

    loadRulesetFile("/tmp/rules");

    EXPECT_THAT(logMessages(), ElementsAre("pf was busy; the ruleset loaded on attempt 2."));
}

TEST(PfctlTest, UsesTheseCommandLines) {
    const ScriptedPfctl pfctl;

    enablePf();
    killStates("192.168.64.0/24");
    flushAnchor();
    flushLegacyAnchor();
    pfStatus();
    listAnchorRules();

    EXPECT_THAT(
        pfctl.calls(),
        ElementsAre(
            "-E",
            "-k 192.168.64.0/24",
            "-k 0.0.0.0/0 -k 192.168.64.0/24",
            "-a com.apple/900.tarnvale.firewall -F rules",
            "-a com.tarnvale.firewall -F rules",
            "-si",
            "-a com.apple/900.tarnvale.firewall -v -sr"));
}

}  // namespace
}  // namespace tarnvale::HelperFirewall
