// SPDX-License-Identifier: MIT

#include "firewall/enforce/StatusReport.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/ScriptedPfctl.h"

namespace tarnvale::HelperFirewall {
namespace {

using test::ScriptedPfctl;
using testing::ElementsAre;

TEST(StatusReportTest, ShowsTheStatusAndTheRules) {
    ScriptedPfctl pfctl;
    pfctl.answer("-si", R"(printf 'Status: Enabled\n\nState Table\n  current entries\n')");
    pfctl.answer(
        "* -v -sr",
        "echo 'pass in quick inet all'; echo '  [ Evaluations: 1 ]'; echo 'No ALTQ support' >&2");

    EXPECT_EQ(
        statusReport(),
        "== pf status ==\nStatus: Enabled\nState Table\n\n"
        "== com.apple/900.tarnvale.firewall ==\npass in quick inet all\n  [ Evaluations: 1 ]\n"
        "No ALTQ support");
    EXPECT_THAT(pfctl.calls(), ElementsAre("-si", "-a com.apple/900.tarnvale.firewall -v -sr"));
}

TEST(StatusReportTest, SaysThatTheAnchorIsEmpty) {
    const ScriptedPfctl pfctl;

    EXPECT_EQ(
        statusReport(),
        "== pf status ==\n\n\n== com.apple/900.tarnvale.firewall ==\n(anchor is empty — nothing "
        "enforced)");
}

TEST(StatusReportTest, TakesASingleLineOfStatusAsItIs) {
    ScriptedPfctl pfctl;
    pfctl.answer("-si", "echo 'Status: Disabled'; echo noise >&2; exit 1");

    EXPECT_EQ(
        statusReport(),
        "== pf status ==\nStatus: Disabled\n\n== com.apple/900.tarnvale.firewall ==\n(anchor is "
        "empty — nothing enforced)");
}

TEST(StatusReportTest, TellsThatPfctlIsMissing) {
    std::filesystem::remove("/sbin/pfctl");

    EXPECT_EQ(
        statusReport(),
        "== pf status ==\n\n\n== com.apple/900.tarnvale.firewall ==\nThe file “pfctl” doesn’t "
        "exist.");
}

}  // namespace
}  // namespace tarnvale::HelperFirewall
