// SPDX-License-Identifier: MIT

#include "pfctl/language/RulesetParser.h"

#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pfctl/language/Listing.h"
#include "tests/support/GuardedText.h"

namespace tarnvale::pfctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

Rule onlyRuleOf(std::string_view text) {
    const auto ruleset = parseRuleset(text);
    EXPECT_THAT(ruleset.mistakes, IsEmpty());
    EXPECT_THAT(ruleset.rules, SizeIs(1));
    return ruleset.rules.empty() ? Rule() : ruleset.rules.front();
}

/// The text without its single mistake's line.
std::string mistakeIn(std::string_view text) {
    const auto ruleset = parseRuleset(text);
    EXPECT_THAT(ruleset.mistakes, SizeIs(1)) << text;
    return ruleset.mistakes.empty() ? "" : ruleset.mistakes.front().text;
}

TEST(RulesetParserTest, ReadsEveryPartOfARule) {
    const auto rule = onlyRuleOf(
        "pass out quick proto tcp from 10.0.0.7/8 port 1:2 to 192.168.64.0/24 port 22 keep "
        "state\n");

    EXPECT_EQ(
        rule,
        (Rule{
            .action = Action::pass,
            .direction = Direction::out,
            .protocol = Protocol::tcp,
            .namesASubnet = true,
            .from =
                {.subnet = {.address = 0x0A000000, .prefixLength = 8},
                 .ports = {.kind = Ports::Kind::range, .first = 1, .last = 2}},
            .to = {
                .subnet = {.address = 0xC0A84000, .prefixLength = 24},
                .ports = {.kind = Ports::Kind::one, .first = 22, .last = 22}}}));
}

TEST(RulesetParserTest, ReadsTheRulesetOfOneNetwork) {
    const auto ruleset = parseRuleset(
        "# Tarnvale network firewall \xE2\x80\x94 generated 2025-03-14T09:26:53Z.\n"
        "# Loaded into pf anchor \"com.apple/900.tarnvale.firewall\" by TarnvaleAdminHelper.\n"
        "\n"
        "# --- Lab (192.168.64.0/24) ---\n"
        "pass in quick proto udp from 192.168.64.0/24 port 68 to any port 67 keep state\n"
        "pass out quick proto udp from any port 67 to 192.168.64.0/24 port 68\n"
        "block drop in quick from 192.168.64.0/24 to 10.0.0.0/8\n"
        "pass in quick proto icmp from 192.168.64.0/24 to any keep state\n"
        "pass in quick from 192.168.64.0/24 to any keep state\n"
        "block drop out quick from any to 192.168.64.0/24\n"
        "\n");

    EXPECT_THAT(ruleset.mistakes, IsEmpty());
    std::string listing;
    for (const Rule& rule : ruleset.rules) {
        appendCanonicalLine(listing, rule);
    }
    EXPECT_EQ(
        listing,
        "pass in quick inet proto udp from 192.168.64.0/24 port = 68 to any port = 67 keep state\n"
        "pass out quick inet proto udp from any port = 67 to 192.168.64.0/24 port = 68 keep state\n"
        "block drop in quick inet from 192.168.64.0/24 to 10.0.0.0/8\n"
        "pass in quick inet proto icmp from 192.168.64.0/24 to any keep state\n"
        "pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state\n"
        "block drop out quick inet from any to 192.168.64.0/24\n");
}

TEST(RulesetParserTest, FindsNothingInNothing) {
    for (const std::string_view text :
         {"", "\n", " \t \n", "#", "# no line feed", "  # indented\n", "\n\n\n", "   "}) {
        const auto ruleset = parseRuleset(text);
        EXPECT_THAT(ruleset.rules, IsEmpty()) << text;
        EXPECT_THAT(ruleset.mistakes, IsEmpty()) << text;
    }
}

TEST(RulesetParserTest, TakesBlanksAndACommentAroundWords) {
    const Rule plain = onlyRuleOf("block drop in quick from any to 10.0.0.0/8\n");

    EXPECT_EQ(onlyRuleOf("\t block  drop\tin quick from any to 10.0.0.0/8 \t\n"), plain);
    EXPECT_EQ(onlyRuleOf("block drop in quick from any to 10.0.0.0/8# why\n"), plain);
}

TEST(RulesetParserTest, TakesAnythingInAComment) {
    using namespace std::string_view_literals;
    const auto ruleset = parseRuleset(
        "# \0\r\x1B\xFF pass \" { \\ ### \n#\\x\nblock drop in quick from any to any\n"sv);

    EXPECT_THAT(ruleset.mistakes, IsEmpty());
    EXPECT_THAT(ruleset.rules, SizeIs(1));
}

TEST(RulesetParserTest, JoinsLinesAtABackslash) {
    const Rule plain = onlyRuleOf("block drop in quick from any to 10.0.0.0/8\n");

    EXPECT_EQ(onlyRuleOf("block drop in quick \\\n from any \\\n\tto 10.0.0.0/8\n"), plain);
    EXPECT_EQ(onlyRuleOf("block dr\\\nop in quick from any to 10.0.\\\n\\\n0.0/8\n"), plain);
}

TEST(RulesetParserTest, JoinsACommentWithTheLineBelowAsPfDoes) {
    const auto ruleset = parseRuleset(
        "# a comment that swallows \\\nnonsense\nblock drop in quick from any to any\n");

    EXPECT_THAT(ruleset.mistakes, IsEmpty());
    EXPECT_THAT(ruleset.rules, SizeIs(1));
}

TEST(RulesetParserTest, KeepsABackslashThatJoinsNothing) {
    EXPECT_EQ(mistakeIn("pass\\ in quick from any to any\n"), "syntax error");
    EXPECT_EQ(mistakeIn("block drop in quick from any to any\\\\\n\n"), "syntax error");
    EXPECT_EQ(mistakeIn("\\"), "syntax error");
    EXPECT_THAT(parseRuleset("# \\").mistakes, IsEmpty());
}

TEST(RulesetParserTest, NamesTheLineOfEachMistake) {
    const auto ruleset = parseRuleset(
        "# one\n"
        "two\n"
        "pass in quick from any to any\n"
        "pass in \\\n"
        "quick \\\n"
        "six\n"
        "pass in quick from any \\\n"
        "\n"
        "nine\n");

    EXPECT_THAT(
        ruleset.mistakes,
        ElementsAre(
            Mistake{.line = 2, .text = "syntax error"},
            Mistake{.line = 6, .text = "syntax error"},
            Mistake{.line = 8, .text = "syntax error"},
            Mistake{.line = 9, .text = "syntax error"}));
}

TEST(RulesetParserTest, StopsAtTheTenthMistake) {
    std::string text;
    for (int line = 0; line < 100; ++line) {
        text += "nonsense\n";
    }

    EXPECT_THAT(parseRuleset(text).mistakes, SizeIs(10));
}

TEST(RulesetParserTest, RefusesALastRuleWithoutALineFeed) {
    EXPECT_EQ(mistakeIn("block drop in quick from any to any"), "syntax error");
}

TEST(RulesetParserTest, ReadsNothingBehindTheText) {
    const std::string_view ruleset =
        "pass in quick proto udp from 192.168.64.0/24 port 68 to any port 67:68 keep state\n"
        "block drop out quick inet \\\nproto tcp from any to 10.0.0.1 port = 22\n";

    test::readEveryBeginning(ruleset, [&ruleset](std::string_view text) {
        const bool isWhole =
            text.empty() || text.size() == ruleset.find('\n') + 1 || text.size() == ruleset.size();
        EXPECT_EQ(parseRuleset(text).mistakes.empty(), isWhole) << text;
    });
}

TEST(RulesetParserTest, RefusesACarriageReturn) {
    EXPECT_EQ(mistakeIn("block drop in quick from any to any\r\n"), "syntax error");
    EXPECT_EQ(mistakeIn("\r\n"), "syntax error");
    EXPECT_THAT(parseRuleset("# comment\r\n").mistakes, IsEmpty());
}

TEST(RulesetParserTest, RefusesEveryOtherWord) {
    using namespace std::string_view_literals;
    for (const std::string_view text : {
             "block in quick from any to any\n"sv,
             "block return in quick from any to any\n"sv,
             "pass quick from any to any\n"sv,
             "pass in from any to any\n"sv,
             "pass in log quick from any to any\n"sv,
             "pass in quick on en0 from any to any\n"sv,
             "pass in quick inet from any to any\n"sv,
             "pass in quick all\n"sv,
             "pass in quick from any\n"sv,
             "pass in quick to any\n"sv,
             "pass in quick from\n"sv,
             "pass in quick from any to\n"sv,
             "pass in quick from any to any keep\n"sv,
             "pass in quick from any to any keep state keep state\n"sv,
             "pass in quick from any to any flags S/SA keep state\n"sv,
             "pass in quick from any to any no state\n"sv,
             "pass in quick proto\n"sv,
             "pass in quick proto { tcp udp } from any to any\n"sv,
             "PASS in quick from any to any\n"sv,
             "pass in quick from any to any; pass in quick from any to any\n"sv,
             "pass in quick from any to any pass in quick from any to any\n"sv,
             "set skip on lo0\n"sv,
             "anchor \"x\"\n"sv,
             "x = \"1\"\n"sv,
             "pass in quick from any to any\0\n"sv,
             "pass in quick from any\xC2\xA0to any\n"sv,
             "pass in quick from any\vto any\n"sv,
             "\xEF\xBB\xBFpass in quick from any to any\n"sv,
         }) {
        const auto mistakes = parseRuleset(text).mistakes;
        EXPECT_THAT(mistakes, SizeIs(1)) << text;
    }
}

TEST(RulesetParserTest, RefusesWhatIsNoNetwork) {
    const auto mistakeAt = [](const std::string& network) {
        return mistakeIn("pass in quick from " + network + " to any\n");
    };

    for (const char* network :
         {"10.0.0/8",
          "10.0.0.0",
          "10.0.0.0/",
          "10.0.0.0/33",
          "10.0.0.0/08",
          "10.0.0.256/8",
          "10.0.0.00/8",
          "010.0.0.0/8",
          "10.0.0.0/8/8",
          "10..0.0/8",
          "10.0.0.0.0/8",
          "-1.0.0.0/8",
          "0x0a.0.0.0/8",
          "10.0.0.0/-8",
          "10.0.0.0/4294967304",
          "4294967306.0.0.0/8",
          "::/0",
          "fe80::1/64",
          "localhost",
          "anyy",
          "/8",
          "."}) {
        EXPECT_EQ(mistakeAt(network), "could not parse host") << network;
    }
    for (const char* network : {"!10.0.0.0/8", "+10.0.0.0/8", "<table>", "(en0)", "{", "\"any\""}) {
        EXPECT_EQ(mistakeAt(network), "syntax error") << network;
    }
}

TEST(RulesetParserTest, ReadsTheSmallestAndTheLargestNetworks) {
    EXPECT_EQ(
        onlyRuleOf("pass in quick from 255.255.255.255/0 to any\n").from.subnet,
        (Subnet{.address = 0, .prefixLength = 0}));
    EXPECT_EQ(
        onlyRuleOf("pass in quick from 255.255.255.255/1 to any\n").from.subnet,
        (Subnet{.address = 0x80000000, .prefixLength = 1}));
    EXPECT_EQ(
        onlyRuleOf("pass in quick from 255.255.255.255/32 to any\n").from.subnet,
        (Subnet{.address = 0xFFFFFFFF, .prefixLength = 32}));
}

TEST(RulesetParserTest, RefusesWhatIsNoPort) {
    const auto mistakeAt = [](const std::string& port) {
        return mistakeIn("pass in quick proto tcp from any to any port " + port + "\n");
    };

    EXPECT_EQ(mistakeAt("0"), "illegal port value 0");
    EXPECT_EQ(mistakeAt("65536"), "illegal port value 65536");
    EXPECT_EQ(mistakeAt("022"), "illegal port value 022");
    EXPECT_EQ(mistakeAt("99999999999999999999"), "illegal port value 99999999999999999999");
    EXPECT_EQ(mistakeAt("1:65536"), "illegal port value 65536");
    EXPECT_EQ(mistakeAt("0:1"), "illegal port value 0");
    EXPECT_EQ(mistakeAt("ssh"), "unknown port ssh");
    EXPECT_EQ(mistakeAt("-1"), "unknown port -1");
    EXPECT_EQ(mistakeAt("1:x"), "unknown port x");
    EXPECT_EQ(mistakeAt("90:80"), "syntax error");
    EXPECT_EQ(mistakeAt(""), "syntax error");
    EXPECT_EQ(mistakeAt(":"), "syntax error");
    EXPECT_EQ(mistakeAt("1:"), "syntax error");
    EXPECT_EQ(mistakeAt(":1"), "syntax error");
    EXPECT_EQ(mistakeAt("1:2:3"), "unknown port 2:3");
    EXPECT_EQ(mistakeAt("= 22"), "syntax error");
    EXPECT_EQ(mistakeAt("22 port 23"), "syntax error");
}

TEST(RulesetParserTest, ReadsTheSmallestAndTheLargestPorts) {
    const auto portsOf = [](const std::string& ports) {
        return onlyRuleOf("pass in quick proto udp from any to any port " + ports + "\n").to.ports;
    };

    EXPECT_EQ(portsOf("1"), (Ports{.kind = Ports::Kind::one, .first = 1, .last = 1}));
    EXPECT_EQ(portsOf("65535"), (Ports{.kind = Ports::Kind::one, .first = 65535, .last = 65535}));
    EXPECT_EQ(portsOf("1:65535"), (Ports{.kind = Ports::Kind::range, .first = 1, .last = 65535}));
    EXPECT_EQ(portsOf("80:80"), (Ports{.kind = Ports::Kind::range, .first = 80, .last = 80}));
}

TEST(RulesetParserTest, WantsPortsWithTcpAndUdpOnly) {
    EXPECT_EQ(
        mistakeIn("pass in quick proto icmp from any to any port 80\n"),
        "port only applies to tcp/udp");
    EXPECT_EQ(mistakeIn("pass in quick from any port 80 to any\n"), "port only applies to tcp/udp");
}

TEST(RulesetParserTest, RefusesOtherProtocols) {
    EXPECT_EQ(mistakeIn("pass in quick proto sctp from any to any\n"), "unknown protocol sctp");
    EXPECT_EQ(mistakeIn("pass in quick proto 6 from any to any\n"), "unknown protocol 6");
    EXPECT_EQ(mistakeIn("pass in quick proto TCP from any to any\n"), "unknown protocol TCP");
}

TEST(RulesetParserTest, ShowsNoWordThatCouldHarmAReader) {
    EXPECT_EQ(mistakeIn("pass in quick proto \x1B[31m from any to any\n"), "syntax error");
    EXPECT_EQ(
        mistakeIn("pass in quick proto " + std::string(1000, 'x') + " from any to any\n"),
        "syntax error");
}

TEST(RulesetParserTest, RefusesAStateForABlock) {
    EXPECT_EQ(
        mistakeIn("block drop in quick from any to any keep state\n"),
        "keep state on block rules doesn't make sense");
}

/// Lines of every kind that a ruleset may have, by a fixed rule from a seed.
class RandomLines {
public:
    explicit RandomLines(unsigned seed) : random_(seed) {}

    std::size_t below(std::size_t bound) { return random_() % bound; }

    std::string line() {
        const bool passes = below(2) == 0;
        const std::string protocol = oneOf({"", " proto tcp", " proto udp", " proto icmp"});
        const bool hasPorts = protocol == " proto tcp" || protocol == " proto udp";
        return (passes ? "pass" : "block drop") + oneOf({" in", " out"}) + " quick" + protocol +
               " from " + endpoint(hasPorts) + " to " + endpoint(hasPorts) +
               (passes ? oneOf({"", " keep state"}) : "") + "\n";
    }

private:
    std::string oneOf(const std::vector<std::string>& words) {
        return words.at(below(words.size()));
    }

    std::string endpoint(bool hasPorts) {
        const std::string subnet = std::to_string(below(256)) + "." + std::to_string(below(256)) +
                                   ".64." + std::to_string(below(256)) + "/" +
                                   std::to_string(below(33));
        const auto first = 1 + below(65535);
        const auto port = std::to_string(first);
        const auto ports = hasPorts ? oneOf({
                                          "",
                                          " port " + port,
                                          " port " + port + ":" + port,
                                          " port " + port + ":65535",
                                      })
                                    : "";
        return oneOf({"any", "0.0.0.0/0", "10.0.0.1/32", subnet}) + ports;
    }

    std::mt19937 random_;
};

TEST(RulesetParserTest, ReadsItsOwnListing) {
    RandomLines random(20261122);
    for (int trial = 0; trial < 500; ++trial) {
        std::string text;
        for (std::size_t line = random.below(40); line > 0; --line) {
            text += random.line();
        }
        const auto written = parseRuleset(text);
        ASSERT_THAT(written.mistakes, IsEmpty()) << text;
        std::string listing;
        for (const Rule& rule : written.rules) {
            appendCountedRule(
                listing,
                {.index = 0,
                 .rule = rule,
                 .evaluations = random.below(1000),
                 .packets = random.below(1'000'000'000),
                 .bytes = ~std::uint64_t{0}},
                random.below(1'000'000'000),
                {.uid = 0, .pid = 4194304});
        }

        const auto listed = parseRuleset(listing);

        EXPECT_THAT(listed.mistakes, IsEmpty()) << listing;
        EXPECT_EQ(listed.rules, written.rules) << listing;
    }
}

TEST(RulesetParserTest, RefusesWhatIsAlmostAListing) {
    for (const std::string_view text : {
             "pass in quick inet proto tcp from any to 1.1.1.1 port = 22 flags S/SA keep state\n",
             "pass in quick inet from 10.0.0.0/8 to any flags S/SA keep state\n",
             "block drop in quick inet proto tcp from any to any port 1:2\n",
             "block drop in quick all\n",
         }) {
        EXPECT_THAT(parseRuleset(text).mistakes, IsEmpty()) << text;
    }

    for (const std::string_view text : {
             "pass in quick proto tcp from any to 1.1.1.1 port = 22 flags S/SA keep state\n",
             "pass in quick inet proto tcp from any to 1.1.1.1 port 22 flags S/SA keep state\n",
             "pass in quick inet proto tcp from any to 1.1.1.1/32 flags S/SA keep state\n",
             "pass in quick inet proto tcp from any to 1.1.1.1 port = 22 keep state\n",
             "pass in quick inet proto tcp from any to 1.1.1.1 port = 22 flags S/SA\n",
             "pass in quick inet proto udp from any to 1.1.1.1 flags S/SA keep state\n",
             "pass in quick inet from 10.0.0.1/8 to any flags S/SA keep state\n",
             "pass in quick inet from 10.0.0.0/8 to any flags S/SAFR keep state\n",
             "pass in quick inet6 from 10.0.0.0/8 to any flags S/SA keep state\n",
             "pass in inet quick from 10.0.0.0/8 to any flags S/SA keep state\n",
             "block drop in quick inet from 10.0.0.0/8 to any flags S/SA\n",
             "block drop in quick inet proto tcp from any to any port = 1:2\n",
             "block drop in quick inet from any to any\n",
             "block drop in quick inet  all\n",
             "block drop in quick all all\n",
             "block drop in quick all",
             "  [ Evaluations: 0         Packets: 0         Bytes: 0           States: 0     ]",
             "[ Evaluations: 0         Packets: 0         Bytes: 0           States: 0     ]\n",
             "  [ Evaluations: 0         Packets: 0         Bytes: 0           States: x     ]\n",
             "  [ Evaluations: 0         Packets: 0         Bytes: 0           States: 0     ] x\n",
             "  [ Inserted: uid 0 pid -1 ]\n",
             "  [ Inserted: uid 0 pid 1 ]  pass in quick from any to any\n",
         }) {
        EXPECT_THAT(parseRuleset(text).mistakes, SizeIs(1)) << text;
        EXPECT_THAT(parseRuleset(text).rules, IsEmpty()) << text;
    }
    EXPECT_EQ(mistakeIn("block drop in quick inet from 10.0.0.256 to any\n"), "syntax error");
}

TEST(RulesetParserTest, ReadsLongLinesAndManyJoinsInLinearTime) {
    const std::string blanks(4'000'000, ' ');
    std::string joins;
    for (int join = 0; join < 1'000'000; ++join) {
        joins += "\\\n";
    }
    const std::string rule = "block drop in quick from any to any\n";

    const auto ruleset =
        parseRuleset(blanks + rule + "#" + blanks + "\n" + joins + rule + "#" + joins + "\n");

    EXPECT_THAT(ruleset.mistakes, IsEmpty());
    EXPECT_THAT(ruleset.rules, SizeIs(2));
}

TEST(RulesetParserTest, CountsTheLinesOfManyJoins) {
    std::string joins;
    for (int join = 0; join < 1000; ++join) {
        joins += "\\\n";
    }

    EXPECT_THAT(
        parseRuleset(joins + "nonsense\nmore\n").mistakes,
        ElementsAre(
            Mistake{.line = 1001, .text = "syntax error"},
            Mistake{.line = 1002, .text = "syntax error"}));
}

}  // namespace
}  // namespace tarnvale::pfctl
