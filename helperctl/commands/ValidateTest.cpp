// SPDX-License-Identifier: MIT

#include "helperctl/commands/Validate.h"

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/Review.h"
#include "helperctl/Answer.h"
#include "helperctl/Preview.h"
#include "tests/support/JsonSchema.h"
#include "tests/support/Mutation.h"

namespace tarnvale::helperctl {
namespace {

using NetworkFirewall::HostAddress;
using testing::ElementsAre;
using testing::IsEmpty;

/// The machine's own network, and a bridge of virtual machines.
std::vector<HostAddress> hostsOfOneLab() {
    return {
        {.interface = "en0", .bytes = {192, 168, 1, 5}, .prefixLength = 24},
        {.interface = "bridge100", .bytes = {192, 168, 64, 1}, .prefixLength = 24}};
}

std::string rule(const std::string& remote, const std::string& ports, bool enabled = true) {
    return R"({"id":"0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F","enabled":)" +
           std::string(enabled ? "true" : "false") +
           R"(,"direction":"outbound","action":"deny","proto":"udp","remoteCIDR":")" + remote +
           R"(","ports":")" + ports + "\"}";
}

std::string network(const std::string& subnet, const std::string& rules, bool enabled = true) {
    return R"({"networkID":"6f1c2e0a-9b7d-4e53-8a21-0c5d9e7f1a2b","name":"Lab","subnetCIDR":")" +
           subnet + R"(","dnsProxyEnabled":true,"policy":{"enabled":)" +
           std::string(enabled ? "true" : "false") +
           R"(,"defaultInbound":"deny","defaultOutbound":"allow","rules":[)" + rules + "]}}";
}

std::vector<std::string> problemsOf(const std::string& policy) {
    std::vector<std::string> problems;
    for (const auto& problem : validated(policy, hostsOfOneLab()).problems) {
        problems.push_back(
            std::to_string(problem.place.line) + ":" + std::to_string(problem.place.column) + " " +
            problem.path + ": " + problem.problem + (problem.isIgnored ? " (warning)" : ""));
    }
    return problems;
}

TEST(ValidateTest, FindsNothingInASoundPolicy) {
    const auto validation = validated(
        "[" + network("192.168.64.0/24", rule("any", "") + "," + rule("10.0.0.0/8", "53")) + "]",
        hostsOfOneLab());

    EXPECT_THAT(validation.problems, IsEmpty());
    EXPECT_TRUE(validation.isValid());
    EXPECT_EQ(validation.networks, 1U);
    EXPECT_EQ(validation.rules, 2U);
    EXPECT_TRUE(validated("[]", hostsOfOneLab()).isValid());
}

TEST(ValidateTest, FindsWhatTheReviewRefuses) {
    EXPECT_THAT(
        problemsOf(
            "[" + network("192.168.1.0/24", rule("10.0.0/8", "0") + ",\n" + rule("any", "443")) +
            ",\n" + network("192.168.64.0/24", rule("any", "x")) + ",\n" +
            network(" 192.168.64.7/24", "") + "]"),
        ElementsAre(
            "1:80 [0].subnetCIDR: 192.168.1.0/24 overlaps en0 (192.168.1.5), one of this Mac's own "
            "networks; rules there would cut the Mac off from it.",
            "1:330 [0].policy.rules[0].remoteCIDR: \"10.0.0/8\" isn't an IPv4 address or CIDR "
            "(such "
            "as 10.0.0.0/8).",
            "1:349 [0].policy.rules[0].ports: \"0\" isn't a port or port range (1–65535, such as "
            "443 "
            "or 8000-8080).",
            "3:344 [1].policy.rules[0].ports: \"x\" isn't a port or port range (1–65535, such as "
            "443 "
            "or 8000-8080).",
            "4:79 [2].subnetCIDR: 192.168.64.0/24 is already the subnet of [1]; this network is "
            "left out."));
}

TEST(ValidateTest, JudgesNothingThatIsOff) {
    EXPECT_THAT(
        problemsOf(
            "[" + network("nowhere", rule("nobody", "x"), false) + "," +
            network("192.168.64.0/24", rule("nobody", "x", false)) + "," +
            network("192.168.64.0/24", "", false) + "]"),
        IsEmpty());
}

TEST(ValidateTest, DoesNotJudgeWhatCouldNotBeRead) {
    auto policy = "[" + network("192.168.64.0/24", rule("nobody", "")) + "]";
    policy.replace(policy.find("\"udp\""), 5, "\"UDP\"");
    EXPECT_THAT(
        problemsOf(policy),
        ElementsAre("1:312 [0].policy.rules[0].proto: \"UDP\" is not one of any, tcp, udp, icmp"));

    policy = "[" + network("nowhere", "") + "]";
    policy.replace(policy.find("\"nowhere\""), 9, "17");
    EXPECT_THAT(
        problemsOf(policy), ElementsAre("1:80 [0].subnetCIDR: expected a string, found 17"));
}

TEST(ValidateTest, WarnsOfWhatTheHelperIgnores) {
    auto policy = "[" + network("192.168.64.0/24", "") + "]";
    policy.insert(policy.find("\"dnsProxyEnabled\""), R"("gatewayIPV4":"192.168.64.1",)");

    EXPECT_THAT(
        problemsOf(policy), ElementsAre("1:112 [0].gatewayIPV4: unknown key, ignored (warning)"));
    EXPECT_TRUE(validated(policy, hostsOfOneLab()).isValid());
}

TEST(ValidateTest, FindsAnErrorOfSyntaxAndWhatDoesNotFitBeforeIt) {
    EXPECT_THAT(
        problemsOf("[{\"networkID\":\"nowhere\"},\n,"),
        testing::IsSupersetOf(
            {"1:15 [0].networkID: expected a UUID, found \"nowhere\"",
             "1:2 [0]: missing key \"policy\"",
             "2:1 : expected a value, found \",\""}));
}

/// Whether an apply would enforce every enabled network and rule of the policy.
bool isEnforced(const std::string& policy) {
    try {
        const auto preview = helperctl::preview(policy, hostsOfOneLab(), 501);
        return preview.status == done && preview.answer.skippedRules->empty() &&
               preview.answer.droppedClaims->empty();
    } catch (const std::exception&) {
        return false;
    }
}

TEST(ValidateTest, FindsAProblemExactlyIfAnApplyWould) {
    const auto sound =
        "[" + network("192.168.64.0/24", rule("any", "80-90") + "," + rule("10.0.0.0/8", "53")) +
        "," + network("192.168.65.0/24", rule("1.2.3.4", "")) + "]";
    std::mt19937_64 random(1);  // NOLINT(cert-msc51-cpp): every run tries the same
    int sounds = 0;
    for (int i = 0; i < 10'000; ++i) {
        const auto policy = test::mutated(sound, random);

        const bool isValid = validated(policy, hostsOfOneLab()).isValid();

        EXPECT_EQ(isValid, isEnforced(policy)) << policy;
        sounds += isValid ? 1 : 0;
    }
    EXPECT_GT(sounds, 100);
}

class ValidateOutputTest : public testing::Test {
protected:
    std::ostringstream output;
    std::ostringstream errors;

    int run(const std::string& file, Format format) {
        Arguments arguments;
        arguments.command = Command::validate;
        arguments.file = file;
        const Connect connect;
        Console console{.output = output, .errors = errors, .format = format};
        return validate({arguments, connect, console});
    }

    static std::string fileWith(const std::string& content) {
        auto path = testing::TempDir() + "tarnvale-validate.json";
        std::ofstream(path) << content;
        return path;
    }
};

TEST_F(ValidateOutputTest, PrintsALineForEachProblem) {
    const auto file = fileWith("[{\"a\\u001b[2J\": 1}]\n");

    EXPECT_EQ(run(file, Format::text), refusedOrFailed);

    EXPECT_THAT(output.str(), testing::StartsWith(file + ":1:2: [0]: missing key \"networkID\"\n"));
    EXPECT_THAT(
        output.str(),
        testing::EndsWith(file + ":1:17: warning: [0].a\\u001b[2J: unknown key, ignored\n"));
    EXPECT_EQ(errors.str(), "5 problems, 1 warning: 1 network, 0 rules.\n");
}

TEST_F(ValidateOutputTest, SaysThatThereIsNoProblem) {
    EXPECT_EQ(run(TARNVALE_SOURCE_DIR "/examples/lab.json", Format::text), done);

    EXPECT_EQ(output.str(), "");
    EXPECT_EQ(errors.str(), "No problem: 1 network, 2 rules.\n");
}

TEST_F(ValidateOutputTest, PrintsJsonOfItsSchema) {
    EXPECT_EQ(run(fileWith("[{}, 7]"), Format::json), refusedOrFailed);

    EXPECT_EQ(test::judgedBySchema("helperctl", output.str()), "yes");
    EXPECT_EQ(
        test::judgedBySchema("helperctl", "{\"formatVersion\":1,\"validation\":{}}").substr(0, 3),
        "no:");
    EXPECT_EQ(errors.str(), "");
}

}  // namespace
}  // namespace tarnvale::helperctl
