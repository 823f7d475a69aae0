// SPDX-License-Identifier: MIT

#include "helperctl/commands/Apply.h"

#include <cstddef>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/FakeHelper.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PolicyText.h"

namespace tarnvale::helperctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char* const appliedPath = "/tmp/policy.json";

class ApplyTest : public testing::Test {
protected:
    ResultReply reply{.result = "the summary", .error = {}};
    std::vector<std::string> calls;

    Outcome apply(const std::string& policy, bool strict = false) {
        test::put(appliedPath, policy);
        Arguments arguments;
        arguments.command = Command::apply;
        arguments.file = appliedPath;
        arguments.strict = strict;
        return helperctl::apply(
            arguments, [this] { return std::make_unique<test::ReplyingHelper>(reply, calls); });
    }

    /// Rule 2 can't be written.
    static std::string withFaultyRule() {
        const std::string faulty =
            R"({"id":"0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F","enabled":true,"direction":"outbound",)"
            R"("action":"deny","proto":"tcp","remoteCIDR":"any","ports":"http"})";
        std::string sound = faulty;
        sound.replace(sound.find("http"), 4, "80");
        return networkWith("192.168.64.0/24", sound + "," + faulty);
    }

    static std::string networkWith(const std::string& subnet, const std::string& rules) {
        return R"([{"networkID":"00000000-0000-0000-0000-000000000064","name":"Lab","subnetCIDR":")" +
               subnet +
               R"(","dnsProxyEnabled":false,"policy":{"enabled":true,)"
               R"("defaultInbound":"deny","defaultOutbound":"allow","rules":[)" +
               rules + "]}}]";
    }

    static std::vector<SkippedRules> theSkippedRule() {
        return {
            {.networkID = support::Uuid::parse("00000000-0000-0000-0000-000000000064").value(),
             .name = "Lab",
             .rules = {
                 {.number = 2,
                  .problem = "\"http\" isn't a port or port range (1–65535, such as 443 or "
                             "8000-8080)."}}}};
    }
};

TEST_F(ApplyTest, PrintsTheSummaryOnlyWhereNothingIsSkipped) {
    Outcome wanted;
    wanted.answer.summary = "the summary";
    for (const bool strict : {false, true}) {
        EXPECT_EQ(apply(networkWith("192.168.64.0/24", ""), strict), wanted);
        EXPECT_EQ(apply("[]", strict), wanted);
    }
    EXPECT_THAT(calls, testing::SizeIs(4));
}

TEST_F(ApplyTest, SaysWhichRulesAreSkippedAndWhy) {
    const auto outcome = apply(withFaultyRule());

    EXPECT_EQ(outcome.status, done);
    EXPECT_EQ(outcome.answer.summary, "the summary");
    EXPECT_EQ(outcome.answer.skippedRules, theSkippedRule());
    EXPECT_THAT(calls, ElementsAre("applyFirewall " + withFaultyRule()));
}

TEST_F(ApplyTest, SaysSoEvenIfTheHelperRefusesNetworks) {
    reply = {.result = {}, .error = "Some.\nNot enforced:\n• Other: a problem."};
    EXPECT_EQ(apply(withFaultyRule()).answer.skippedRules, theSkippedRule());

    reply = {.result = {}, .error = "pfctl rejected the ruleset: no."};
    EXPECT_EQ(apply(withFaultyRule()), failure("pfctl rejected the ruleset: no."));
}

TEST_F(ApplyTest, StrictlyChangesNothingIfARuleWouldBeSkipped) {
    auto wanted = failure("Changed nothing: not all of the file would be enforced.");
    wanted.answer.skippedRules = theSkippedRule();

    EXPECT_EQ(apply(withFaultyRule(), true), wanted);

    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ApplyTest, StrictlyChangesNothingIfANetworkWouldBeLeftOut) {
    const auto refused = apply(networkWith("10.0.0.0/24", ""), true);
    EXPECT_EQ(refused.status, refusedOrFailed);
    EXPECT_THAT(refused.answer.refused.value(), testing::SizeIs(1));

    auto twice = networkWith("192.168.64.0/24", "");
    twice.pop_back();
    twice += "," + networkWith("192.168.64.9/24", "").substr(1);
    EXPECT_THAT(apply(twice, true).answer.droppedClaims.value(), testing::SizeIs(1));
    EXPECT_THAT(calls, IsEmpty());

    EXPECT_EQ(apply(twice).answer.droppedClaims->size(), 1U);
    EXPECT_THAT(calls, testing::SizeIs(1));
}

TEST_F(ApplyTest, SaysWhatIsInForceAgainWithoutHarmToTheTerminal) {
    test::put(appliedPath, "[]");
    ASSERT_NE(std::freopen("/dev/null", "r", stdin), nullptr);  // nobody confirms
    reply = {.result = {}, .error = "No \033[2J\nnor \a."};
    Arguments arguments;
    arguments.command = Command::apply;
    arguments.file = appliedPath;
    arguments.confirmSeconds = 60;
    std::size_t requests = 0;
    const Connect connect = [&] {
        // The apply is done, putting back is refused.
        const auto answer = requests++ == 0 ? ResultReply{.result = "done", .error = {}} : reply;
        return std::make_unique<test::ReplyingHelper>(answer, calls);
    };
    std::ostringstream output;
    std::ostringstream errors;
    Console console{.output = output, .errors = errors};

    EXPECT_EQ(applyFile({arguments, connect, console, NetworkFirewall::PolicyStore{}}), 1);

    EXPECT_THAT(
        errors.str(),
        testing::EndsWith(
            "\nNot confirmed, but what was before couldn't be put back: No \\u001b[2J\n"
            "nor \\u0007.\n"));
}

TEST_F(ApplyTest, LeavesWhatCantBeReadToTheHelper) {
    reply = {.result = {}, .error = "Could not read it."};

    for (const bool strict : {false, true}) {
        EXPECT_EQ(apply("[1]", strict), failure("Could not read it."));
    }
    EXPECT_THAT(calls, ElementsAre("applyFirewall [1]", "applyFirewall [1]"));
}

}  // namespace
}  // namespace tarnvale::helperctl
