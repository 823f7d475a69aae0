// SPDX-License-Identifier: MIT

#include "helperctl/Explain.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/HelperError.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PolicyText.h"

namespace tarnvale::helperctl {
namespace {

using NetworkFirewall::HostAddress;
using test::policyText;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ThrowsMessage;

std::string example(const std::string& name) {
    return test::contentOf(TARNVALE_SOURCE_DIR "/examples/" + name);
}

Explanation explained(
    const std::string& policy,
    const std::string& packet,
    const std::vector<HostAddress>& hosts = {}) {
    return explain(NamedRuleset::ofFile(policy, hosts), FirewallAnalysis::parsePacket(packet));
}

TEST(ExplainTest, NamesRuleNetworkAndPath) {
    const auto explanation = explained(example("lab.json"), "tcp 192.168.64.2 -> 10.1.2.3:443");

    EXPECT_EQ(explanation.packet, "tcp 192.168.64.2 -> 10.1.2.3:443");
    EXPECT_EQ(explanation.verdict, "blocked");
    EXPECT_EQ(explanation.sentence, "blocked, by rule 2 of Lab (deny 10.0.0.0/8)");
    ASSERT_EQ(explanation.crossings.size(), 1U);
    const auto& crossing = explanation.crossings[0];
    EXPECT_EQ(crossing.direction, "in");
    EXPECT_EQ(crossing.network, "Lab");
    EXPECT_FALSE(crossing.passes);
    ASSERT_TRUE(crossing.decides);
    EXPECT_EQ(crossing.decides->line, "block drop in quick from 192.168.64.0/24 to 10.0.0.0/8");
    EXPECT_EQ(crossing.decides->origin, "rule");
    EXPECT_EQ(crossing.decides->rule, 2);
    EXPECT_EQ(crossing.decides->path, "[0].policy.rules[1]");
    EXPECT_THAT(explanation.notes, IsEmpty());
}

/// "rule 1 (allow tcp 22): another port", for each line that was looked at.
std::vector<std::string> lookedAt(const ExplainedCrossing& crossing) {
    std::vector<std::string> lines;
    for (const auto& line : crossing.before) {
        lines.push_back(line.words + ": " + line.why.value_or(""));
    }
    return lines;
}

TEST(ExplainTest, SaysWhyEachEarlierLineDoesntMatch) {
    const auto lookedAtFor = [](const std::string& packet) {
        return lookedAt(explained(example("web-server.json"), packet).crossings.at(0));
    };

    // Rule 6 is off, and what is for the other direction isn't looked at.
    EXPECT_THAT(
        lookedAtFor("udp 192.168.66.2 -> 192.168.66.1:54"),
        ElementsAre(
            "the DHCP line: comes from another port",
            "the DNS line for udp: another port",
            "the DNS line for tcp: another protocol",
            "rule 5 (allow tcp 5432-5433 to 203.0.113.0/24): another protocol"));
    EXPECT_THAT(
        lookedAtFor("udp 192.168.66.2:68 -> 192.168.66.1:68"),
        Contains("the DHCP line: another port"));
    // Of rule 3, which gives a line for tcp and one for udp, what is nearer to a match counts.
    EXPECT_THAT(
        lookedAtFor("tcp 203.0.113.9 -> 192.168.66.2:444"),
        ElementsAre(
            "the DHCP line: another protocol",
            "rule 1 (deny 198.51.100.0/24): another address",
            "rule 2 (allow tcp 80): another port",
            "rule 3 (allow tcp and udp 443): another port",
            "rule 4 (allow icmp): another protocol"));
    EXPECT_THAT(
        lookedAtFor("udp 203.0.113.9 -> 192.168.66.2:443"),
        ElementsAre(
            "the DHCP line: comes from another port",
            "rule 1 (deny 198.51.100.0/24): another address",
            "rule 2 (allow tcp 80): another protocol"));
    EXPECT_THAT(
        lookedAtFor("icmp 203.0.113.9 -> 192.168.66.2"),
        Contains("rule 3 (allow tcp and udp 443): another protocol (any with ports is tcp and udp "
                 "only)"));
}

TEST(ExplainTest, SaysOfWhatComesBesidesRulesWhatDecided) {
    const auto sentenceFor = [](const std::string& packet) {
        return explained(example("lab.json"), packet).sentence;
    };

    EXPECT_EQ(
        sentenceFor("udp 192.168.64.2:68 -> 192.168.64.1:67"), "passed, by the DHCP line of Lab");
    EXPECT_EQ(
        sentenceFor("tcp 192.168.64.2 -> 192.168.64.1:53"),
        "passed, by the DNS line for tcp of Lab");
    EXPECT_EQ(
        sentenceFor("icmp 192.168.64.2 -> 1.1.1.1"),
        "passed, by the default for outbound traffic of Lab");
    EXPECT_EQ(
        sentenceFor("icmp 1.1.1.1 -> 192.168.64.2"),
        "blocked, by the default for inbound traffic of Lab");
    EXPECT_EQ(
        sentenceFor("tcp 192.168.64.2 -> 192.168.64.3:22"),
        "passed: between two machines of one network nothing is filtered");
    EXPECT_EQ(sentenceFor("tcp fd00::1 -> [fd00::2]:22"), "passed: no line is about IPv6");
    EXPECT_EQ(sentenceFor("tcp 1.1.1.1 -> 2.2.2.2:22"), "passed: no line is about it");
}

TEST(ExplainTest, ShowsBothVerdictsBetweenTwoNetworks) {
    const auto policy = policyText(
        {{.number = 64, .name = "Lab", .rules = {}, .defaultInbound = "allow"},
         {.number = 65, .name = "Office", .rules = {}, .defaultInbound = "deny"}});

    const auto there = explained(policy, "tcp 192.168.64.2 -> 192.168.65.2:22");
    const auto back = explained(policy, "tcp 192.168.65.2 -> 192.168.64.2:22");

    EXPECT_EQ(there.sentence, "blocked, by the default for inbound traffic of Office");
    ASSERT_EQ(there.crossings.size(), 2U);
    EXPECT_TRUE(there.crossings[0].passes);
    EXPECT_FALSE(there.crossings[1].passes);
    EXPECT_EQ(back.sentence, "passed, by the default for inbound traffic of Lab");
    EXPECT_THAT(
        back.notes,
        ElementsAre(
            "Between two networks a packet crosses pf twice: \"in\" at the first, \"out\" at the "
            "second. Both have to pass it.",
            "Replies pass by the state that this packet leaves, whatever the rules say."));
}

TEST(ExplainTest, KnowsTheHostByItsGatewayAndAddresses) {
    const std::vector<HostAddress> hosts{
        {.interface = "en0", .bytes = {203, 0, 113, 1}, .prefixLength = 24}};

    for (const char* host : {"192.168.64.1", "203.0.113.1"}) {
        const std::string address = host;
        const auto toHost =
            explained(example("lab.json"), "tcp 192.168.64.2 -> " + address + ":22", hosts);
        const auto fromHost =
            explained(example("lab.json"), "tcp " + address + " -> 192.168.64.2:80", hosts);

        EXPECT_EQ(toHost.verdict, "passed");
        EXPECT_EQ(toHost.notes.at(0), "A packet to the host itself crosses pf once: \"in\".");
        EXPECT_EQ(fromHost.verdict, "blocked");
        EXPECT_THAT(fromHost.notes, ElementsAre("The host's own packet crosses pf once: \"out\"."));
    }
}

TEST(ExplainTest, SaysThatAnAddressWithHostBitsMeansItsNetwork) {
    const auto explanation = explained(
        policyText({{.rules = {{.remoteCIDR = "10.0.0.7/8", .ports = ""}}}}),
        "tcp 10.200.1.1 -> 192.168.64.2:80");

    EXPECT_EQ(explanation.sentence, "passed, by rule 1 of Lab (allow tcp from 10.0.0.7/8)");
    EXPECT_THAT(explanation.notes, Contains("10.0.0.7/8 means all of 10.0.0.0/8."));
}

TEST(ExplainTest, SaysWhyANetworkIsNotEnforced) {
    const std::vector<HostAddress> hosts{
        {.interface = "en0", .bytes = {192, 168, 66, 7}, .prefixLength = 24}};
    const auto policy = policyText(
        {{.number = 64, .name = "Lab"},
         {.number = 65, .name = "Off", .enabled = false},
         {.number = 66, .name = "Home"},
         {.number = 67, .name = R"(Second\n)", .subnetCIDR = "192.168.64.0/24"}});
    const auto notesFor = [&](const std::string& address) {
        return explained(policy, "icmp 1.1.1.1 -> " + address, hosts).notes;
    };

    EXPECT_THAT(notesFor("192.168.65.2"), ElementsAre("Off isn't enforced: its firewall is off."));
    EXPECT_THAT(
        notesFor("192.168.66.2"),
        ElementsAre("Home isn't enforced: 192.168.66.0/24 overlaps en0 (192.168.66.7), one of this "
                    "Mac's own networks; rules there would cut the Mac off from it."));
    EXPECT_THAT(
        notesFor("192.168.64.2"),
        ElementsAre("Second\\u000a isn't enforced: Lab has the same subnet and comes first."));
}

/// A report with these listed lines.
std::string report(const std::string& status, const std::string& lines) {
    return "== pf status ==\n" + status + "\n\n== com.apple/900.tarnvale.firewall ==\n" + lines;
}

Explanation explainedLive(const std::string& report, const std::string& packet) {
    return explain(NamedRuleset::ofReport(report, {}), FirewallAnalysis::parsePacket(packet));
}

TEST(ExplainTest, ReadsTheRulesInForce) {
    const auto listed = report(
        "Status: Enabled for 0 days 00:00:01",
        "pass in quick inet proto udp from 192.168.64.0/24 port = 68 to any port = 67 keep state\n"
        "  [ Evaluations: 3         Packets: 0         Bytes: 0           States: 0     ]\n"
        "  [ Inserted: uid 0 pid 77 ]\n"
        "block drop in quick inet from 192.168.64.0/24 to 10.0.0.0/8\n"
        "pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state\n"
        "block drop out quick inet from any to 192.168.64.0/24");

    const auto blocked = explainedLive(listed, "tcp 192.168.64.2 -> 10.1.2.3:443");
    EXPECT_EQ(blocked.sentence, "blocked, by a rule (deny 10.0.0.0/8) of 192.168.64.0/24");
    ASSERT_EQ(blocked.crossings.size(), 1U);
    EXPECT_EQ(
        blocked.crossings[0].decides.value().line,
        "block drop in quick inet from 192.168.64.0/24 to 10.0.0.0/8");
    EXPECT_THAT(lookedAt(blocked.crossings[0]), ElementsAre("the DHCP line: another protocol"));
    EXPECT_EQ(
        explainedLive(listed, "icmp 192.168.64.2 -> 1.1.1.1").sentence,
        "passed, by the default for outbound traffic of 192.168.64.0/24");
}

TEST(ExplainTest, SaysThatNothingIsFilteredWherePfIsOff) {
    const auto off =
        report("Status: Disabled", "block drop out quick inet from any to 192.168.64.0/24");

    EXPECT_EQ(explainedLive(off, "icmp 1.1.1.1 -> 192.168.64.2").sentence, "passed: pf is off");
    EXPECT_EQ(
        explainedLive(
            report("Status: Enabled", "(anchor is empty — nothing enforced)"),
            "icmp 1.1.1.1 -> 192.168.64.2")
            .sentence,
        "passed: no line is about it");
}

TEST(ExplainTest, SaysThatARulesetCantBeRead) {
    EXPECT_THAT(
        [] { NamedRuleset::ofReport(report("", "pfctl: Permission denied"), {}); },
        ThrowsMessage<std::runtime_error>("It is unknown which rules are in force, because pfctl "
                                          "says: pfctl: Permission denied"));
    EXPECT_THAT(
        [] { NamedRuleset::ofReport("something", {}); },
        ThrowsMessage<std::runtime_error>("The helper's report isn't of the known form."));
}

TEST(ExplainTest, FailsAsAnApplyDoes) {
    EXPECT_THAT(
        [] { NamedRuleset::ofFile("[{}]", {}); },
        ThrowsMessage<HelperFirewall::HelperError>(
            "Could not read the firewall policy: missing key \"networkID\" at [0]"));
}

TEST(ExplainTest, PrintsWhatPeopleRead) {
    std::ostringstream output;
    printText(explained(example("lab.json"), "tcp 192.168.64.2 -> 192.168.64.1:53"), output);

    EXPECT_EQ(
        output.str(),
        "passed, by the DNS line for tcp of Lab\n"
        "\n"
        "in from Lab: passed by the DNS line for tcp\n"
        "    pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
        "  looked at before:\n"
        "    the DHCP line: another protocol\n"
        "    the DNS line for udp: another protocol\n"
        "\n"
        "A packet to the host itself crosses pf once: \"in\".\n"
        "Replies pass by the state that this packet leaves, whatever the rules say.\n");
}

}  // namespace
}  // namespace tarnvale::helperctl
