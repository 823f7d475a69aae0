// SPDX-License-Identifier: MIT

#include "firewall/analysis/Listing.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/AnchorText.h"
#include "firewall/policy/Review.h"
#include "support/Text.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr AddressRange lab{.first = 0xC0A84000, .last = 0xC0A840FF};  // 192.168.64.0/24

Line lineOf(const char* text) {
    const auto listed = readListedLine(text);
    EXPECT_TRUE(listed) << text;
    return listed ? listed->line : Line{};
}

TEST(ListingTest, ReadsTheLinesThatPfLists) {
    const auto ssh = readListedLine(
        "pass out quick inet proto tcp from any to 192.168.64.0/24 port = 22 flags S/SA keep "
        "state");
    ASSERT_TRUE(ssh);
    EXPECT_EQ(ssh->subnet, lab);
    EXPECT_EQ(
        ssh->line,
        (Line{
            .direction = Direction::out,
            .passes = true,
            .kinds = {Kind::tcp},
            .remote = {},
            .ports = {.first = 22, .last = 22},
            .origin = Line::Origin::rule}));

    EXPECT_EQ(
        lineOf("block drop in quick inet from 192.168.64.0/24 to 10.0.0.0/8"),
        (Line{
            .direction = Direction::in,
            .passes = false,
            .kinds = everyKind,
            .remote = {.first = 0x0A000000, .last = 0x0AFFFFFF},
            .ports = {},
            .origin = Line::Origin::rule}));
    EXPECT_EQ(
        lineOf("pass in quick inet proto udp from 192.168.64.0/24 port = 68 to any port = 67 keep "
               "state"),
        (Line{
            .direction = Direction::in,
            .passes = true,
            .kinds = {Kind::dhcp},
            .remote = {},
            .ports = {.first = 67, .last = 67},
            .origin = Line::Origin::dhcp}));
    EXPECT_EQ(
        lineOf("block drop in quick inet proto udp from 192.168.64.0/24 to 1.1.1.1 port 80:90")
            .ports,
        (PortRange{.first = 80, .last = 90}));
    EXPECT_EQ(
        lineOf("pass in quick inet proto icmp from 192.168.64.0/24 to any keep state").kinds,
        Kinds{Kind::icmp});
}

TEST(ListingTest, ReadsNothingElse) {
    for (const char* text :
         {"",
          "No ALTQ support in kernel",
          "block drop in quick all",
          "pass in inet from 192.168.64.0/24 to any",
          "pass quick inet from 192.168.64.0/24 to any",
          "block return in quick inet from 192.168.64.0/24 to any",
          "pass in quick inet from <table> to any",
          "pass in quick inet6 from fe80::/10 to any",
          "pass in quick inet proto gre from 192.168.64.0/24 to any",
          "pass in quick inet proto tcp from 192.168.64.0/24 port = 80 to any",
          "pass in quick inet proto tcp from 192.168.64.0/24 to any port = ssh",
          "pass in quick inet proto tcp from 192.168.64.0/24 to any port = 65536",
          "pass in quick inet from 192.168.64.0/24 to"}) {
        EXPECT_FALSE(readListedLine(text)) << text;
    }
}

TEST(ListingTest, ReadsEveryLineThatAPolicyGives) {
    test::RandomPolicies random(7);
    std::size_t lines = 0;
    for (int i = 0; i < 300; ++i) {
        for (const auto& network : NetworkFirewall::review(random.networks(4), {}).enforceable) {
            const auto made = linesOf(network);
            std::vector<ListedLine> read;
            const auto anchor = NetworkFirewall::anchorText({&network, 1}, {});
            for (const auto text : support::split(anchor, '\n')) {
                if (auto line = readListedLine(text)) {
                    read.push_back(*std::move(line));
                }
            }

            ASSERT_EQ(read.size(), made.lines.size()) << anchor;
            for (std::size_t j = 0; j < read.size(); ++j) {
                EXPECT_TRUE(sameEffect(read[j].line, made.lines[j])) << read[j].text;
                EXPECT_EQ(read[j].subnet, made.subnet) << read[j].text;
            }
            lines += read.size();
        }
    }
    EXPECT_GT(lines, 1'000U);
}

TEST(ListingTest, TellsLinesApartByAllThatTheyDo) {
    const auto line = [](const char* text) { return readListedLine(text).value().line; };
    const Line web =
        line("pass in quick inet proto tcp from 192.168.64.0/24 to 10.0.0.0/8 port = 80");

    Line sameOfARule = web;
    sameOfARule.ruleNumber = 7;
    EXPECT_TRUE(sameEffect(web, sameOfARule));
    for (const char* const other :
         {"block drop in quick inet proto tcp from 192.168.64.0/24 to 10.0.0.0/8 port = 80",
          "pass out quick inet proto tcp from 10.0.0.0/8 to 192.168.64.0/24 port = 80",
          "pass in quick inet proto udp from 192.168.64.0/24 to 10.0.0.0/8 port = 80",
          "pass in quick inet proto tcp from 192.168.64.0/24 to 10.0.0.0/9 port = 80",
          "pass in quick inet proto tcp from 192.168.64.0/24 to 10.0.0.0/8 port 80:81",
          "pass in quick inet proto tcp from 192.168.64.0/24 to 10.0.0.0/8"}) {
        EXPECT_FALSE(sameEffect(web, line(other))) << other;
    }
}

TEST(ListingTest, ReadsAReport) {
    const auto listing = readReport(
        "== pf status ==\n"
        "Status: Enabled for 0 days 00:10:11           Debug: Urgent\n"
        "State Table                          Total             Rate\n"
        "\n"
        "== com.apple/900.tarnvale.firewall ==\n"
        "pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state\n"
        "  [ Evaluations: 574091    Packets: 812       Bytes: 51968       States: 3     ]\n"
        "  [ Inserted: uid 0 pid 68 ]\n"
        "block drop out quick inet from any to 192.168.64.0/24\n"
        "No ALTQ support in kernel");
    ASSERT_TRUE(listing);
    EXPECT_EQ(listing->status, "Status: Enabled for 0 days 00:10:11");
    EXPECT_EQ(listing->isEnabled, true);
    ASSERT_EQ(listing->lines.size(), 2U);
    EXPECT_EQ(
        listing->lines[0].counters,
        (Counters{.evaluations = 574091, .packets = 812, .bytes = 51968, .states = 3}));
    EXPECT_EQ(listing->lines[1].counters, std::nullopt);
    EXPECT_THAT(listing->others, ElementsAre("No ALTQ support in kernel"));
}

TEST(ListingTest, ReadsAReportOfNothing) {
    const auto listing = readReport(
        "== pf status ==\nStatus: Disabled\n\n== com.apple/900.tarnvale.firewall ==\n"
        "(anchor is empty — nothing enforced)");
    ASSERT_TRUE(listing);
    EXPECT_EQ(listing->isEnabled, false);
    EXPECT_THAT(listing->lines, IsEmpty());
    EXPECT_THAT(listing->others, IsEmpty());

    const auto unknown = readReport(
        "== pf status ==\n\n\n== com.apple/900.tarnvale.firewall ==\npfctl: Permission denied");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->isEnabled, std::nullopt);
    EXPECT_THAT(unknown->others, ElementsAre("pfctl: Permission denied"));

    EXPECT_FALSE(readReport("the result"));
    EXPECT_FALSE(readReport(""));
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
