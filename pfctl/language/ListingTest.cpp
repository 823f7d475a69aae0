// SPDX-License-Identifier: MIT

#include "pfctl/language/Listing.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "pfctl/language/RulesetParser.h"

namespace tarnvale::pfctl {
namespace {

std::string listed(const std::string& line) {
    std::string out;
    for (const Rule& rule : parseRuleset(line + "\n").rules) {
        appendCanonicalLine(out, rule);
    }
    return out;
}

TEST(ListingTest, PrintsRulesAsPfDoes) {
    struct Case {
        std::string text;
        std::string printed;
    };
    const std::vector<Case> cases{
        // NOLINT(modernize-avoid-c-arrays): sized by what it holds
        {"pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state",
         "pass out quick inet proto tcp from any to 192.168.64.0/24 port = 22 flags S/SA keep "
         "state\n"},
        {"block drop out quick from 10.0.0.7/8 to 192.168.64.0/24",
         "block drop out quick inet from 10.0.0.0/8 to 192.168.64.0/24\n"},
        {"pass in quick proto udp from 192.168.64.0/24 to any port 8000:8080 keep state",
         "pass in quick inet proto udp from 192.168.64.0/24 to any port 8000:8080 keep state\n"},
        {"block drop in quick proto udp from 192.168.64.0/24 to 1.1.1.1/32 port 53",
         "block drop in quick inet proto udp from 192.168.64.0/24 to 1.1.1.1 port = 53\n"},
        {"pass in quick proto icmp from 192.168.64.0/24 to any keep state",
         "pass in quick inet proto icmp from 192.168.64.0/24 to any keep state\n"},
        {"pass in quick from 192.168.64.0/24 to any keep state",
         "pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state\n"},
        {"pass out quick proto udp from any port 67 to 192.168.64.0/24 port 68",
         "pass out quick inet proto udp from any port = 67 to 192.168.64.0/24 port = 68 keep "
         "state\n"},
        {"block drop in quick proto tcp from any port 80:80 to 192.168.64.0/24",
         "block drop in quick inet proto tcp from any port 80:80 to 192.168.64.0/24\n"},
        {"pass in quick from 192.168.64.0/24 to 1.2.3.4/0 keep state",
         "pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state\n"},
        {"block drop in quick from 0.0.0.0/0 to any", "block drop in quick inet all\n"},
        {"block drop in quick from any to any", "block drop in quick all\n"},
        {"pass in quick proto tcp from any to any port 22",
         "pass in quick proto tcp from any to any port = 22 flags S/SA keep state\n"},
    };
    for (const auto& [text, printed] : cases) {
        EXPECT_EQ(listed(text), printed);
    }
}

TEST(ListingTest, PrintsTheCountersBelowARule) {
    const Rule rule =
        parseRuleset("pass in quick proto udp from 192.168.64.0/24 port 68 to any port 67\n")
            .rules.at(0);
    std::string out;
    appendCountedRule(
        out,
        {.index = 0, .rule = rule, .evaluations = 574091, .packets = 812, .bytes = 51968},
        0,
        {.uid = 0, .pid = 68});

    EXPECT_EQ(
        out,
        "pass in quick inet proto udp from 192.168.64.0/24 port = 68 to any port = 67 keep state\n"
        "  [ Evaluations: 574091    Packets: 812       Bytes: 51968       States: 0     ]\n"
        "  [ Inserted: uid 0 pid 68 ]\n");
}

TEST(ListingTest, LetsLongNumbersPushTheColumns) {
    const Rule rule = parseRuleset("block drop in quick from any to any\n").rules.at(0);
    std::string out;
    appendCountedRule(
        out,
        {.index = 0,
         .rule = rule,
         .evaluations = 18446744073709551615U,
         .packets = 123456789,
         .bytes = 12345678901},
        1234567,
        {.uid = 4294967295, .pid = 4194304});

    EXPECT_EQ(
        out,
        "block drop in quick all\n"
        "  [ Evaluations: 18446744073709551615  Packets: 123456789  Bytes: 12345678901  States: "
        "1234567]\n"
        "  [ Inserted: uid 4294967295 pid 4194304 ]\n");
}

TEST(ListingTest, PrintsTheSummaryWhileEnabled) {
    EXPECT_EQ(
        statusSummary(611, 3),
        "Status: Enabled for 0 days 00:10:11           Debug: Urgent\n"
        "\n"
        "State Table                          Total             Rate\n"
        "  current entries                        3\n");
}

TEST(ListingTest, PrintsTheSummaryWhileDisabled) {
    EXPECT_EQ(
        statusSummary(std::nullopt, 0),
        "Status: Disabled                              Debug: Urgent\n"
        "\n"
        "State Table                          Total             Rate\n"
        "  current entries                        0\n");
}

TEST(ListingTest, CountsDaysHoursMinutesAndSeconds) {
    const auto firstLine = [](std::uint64_t seconds) {
        const std::string summary = statusSummary(seconds, 0);
        return summary.substr(0, summary.find("  "));
    };

    EXPECT_EQ(firstLine(0), "Status: Enabled for 0 days 00:00:00");
    EXPECT_EQ(firstLine(86399), "Status: Enabled for 0 days 23:59:59");
    EXPECT_EQ(firstLine(86400), "Status: Enabled for 1 days 00:00:00");
    EXPECT_EQ(firstLine(100 * 86400 + 3661), "Status: Enabled for 100 days 01:01:01");
}

}  // namespace
}  // namespace tarnvale::pfctl
