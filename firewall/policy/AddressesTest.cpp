// SPDX-License-Identifier: MIT

#include "firewall/policy/Addresses.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Pattern.h"

namespace tarnvale::NetworkFirewall {
namespace {

using namespace std::string_literals;
using testing::Eq;
using testing::Optional;
using Bytes = std::vector<std::uint8_t>;

std::string orNothing(const std::optional<std::string>& text) {
    return text.value_or("nothing");
}

struct Case {
    std::string text;
    std::string result;
};

TEST(AddressesTest, ReadsIPv4Addresses) {
    EXPECT_THAT(parseIPv4("192.168.64.1"), Optional(IPv4Address{192, 168, 64, 1}));
    EXPECT_THAT(parseIPv4("0.0.0.0"), Optional(IPv4Address{0, 0, 0, 0}));
    EXPECT_THAT(parseIPv4("255.255.255.255"), Optional(IPv4Address{255, 255, 255, 255}));
}

TEST(AddressesTest, RefusesWhatIsNoIPv4Address) {
    const std::vector<std::string> texts = {
        "",
        "1",
        "1.2.3",
        "1.2.3.",
        ".1.2.3",
        "1..2.3",
        "1.2.3.4.",
        "1.2.3.4.5",
        "1.2.3.256",
        "1.2.3.-4",
        "1.2.3.+4",
        "1.2.3.4 ",
        " 1.2.3.4",
        "1.2.3.4\n",
        "1.2.3.4/32",
        "0x1.2.3.4",
        "1.2.3.a",
        "localhost",
        "::1",
        "::ffff:1.2.3.4",
        "\u0661.2.3.4",
        "1.2.3.99999999999",
        std::string(1 << 20, '1'),
    };
    for (const std::string& text : texts) {
        EXPECT_THAT(parseIPv4(text), Eq(std::nullopt)) << text.substr(0, 80);
    }
}

TEST(AddressesTest, EndsAnAddressAtItsFirstNul) {
    EXPECT_THAT(parseIPv4("10.1.2.3\0.4 junk"s), Optional(IPv4Address{10, 1, 2, 3}));
    EXPECT_THAT(parseIPv4("10.1\0.2.3"s), Eq(std::nullopt));
    EXPECT_THAT(parseIPv4("\0"s), Eq(std::nullopt));
}

TEST(AddressesTest, ReadsAddressesWithAndWithoutAPrefix) {
    const auto cidr = [](IPv4Address address, int prefixLength) {
        return Optional(CIDR{.address = address, .prefixLength = prefixLength});
    };
    EXPECT_THAT(parseCIDR("10.1.2.3"), cidr({10, 1, 2, 3}, 32));
    EXPECT_THAT(parseCIDR("10.1.2.3/8"), cidr({10, 1, 2, 3}, 8));
    EXPECT_THAT(parseCIDR("10.1.2.3/08"), cidr({10, 1, 2, 3}, 8));
    EXPECT_THAT(parseCIDR("0.0.0.0/0"), cidr({0, 0, 0, 0}, 0));
    EXPECT_THAT(parseCIDR("0.0.0.0/00"), cidr({0, 0, 0, 0}, 0));
    EXPECT_THAT(parseCIDR("255.255.255.255/32"), cidr({255, 255, 255, 255}, 32));
    EXPECT_THAT(parseCIDR(" \t192.168.64.0/24\u00A0 "), cidr({192, 168, 64, 0}, 24));
    EXPECT_THAT(parseCIDR("10.1.2.3\0/junk\0/8"s), Eq(std::nullopt));
    EXPECT_THAT(parseCIDR("10.1.2.3\0junk/8"s), cidr({10, 1, 2, 3}, 8));
}

TEST(AddressesTest, RefusesWhatIsNoCIDR) {
    const std::vector<std::string> texts = {
        "",
        " ",
        "/",
        "//",
        "/24",
        "192.168.64.0/",
        "192.168.64.0/024",
        "192.168.64.0/33",
        "192.168.64.0/99",
        "192.168.64.0/-1",
        "192.168.64.0/+1",
        "192.168.64.0/2 4",
        "192.168.64.0/ 8",
        "192.168.64.0 /8",
        "192.168.64.0/8/",
        "192.168.64.0/8/8",
        "192.168.64.0//8",
        "192.168.64.0/x",
        "192.168.64.0/\u0661",
        "192.168.64.0/8\n",
        "\n192.168.64.0/8",
        "10.0.0/8",
        "any",
        "192.168.64.0/8\0"s,
        "fe80::1/64",
    };
    for (const std::string& text : texts) {
        EXPECT_THAT(parseCIDR(text), Eq(std::nullopt)) << text;
    }
}

TEST(AddressesTest, PrintsBytesInDecimal) {
    EXPECT_EQ(dottedQuad(IPv4Address{192, 168, 64, 1}), "192.168.64.1");
    EXPECT_EQ(dottedQuad(IPv4Address{0, 9, 10, 255}), "0.9.10.255");
    EXPECT_EQ(dottedQuad(Bytes{}), "");
    EXPECT_EQ(dottedQuad(Bytes{7}), "7");
    EXPECT_EQ(dottedQuad(Bytes{1, 22, 100, 99, 200}), "1.22.100.99.200");
}

TEST(AddressesTest, ComparesTheFirstBits) {
    const Bytes a = {192, 168, 64, 0};
    EXPECT_TRUE(prefixMatches(a, a, 32));
    EXPECT_TRUE(prefixMatches(a, Bytes{192, 168, 127, 0}, 18));
    EXPECT_FALSE(prefixMatches(a, Bytes{192, 168, 127, 0}, 19));
    EXPECT_TRUE(prefixMatches(a, Bytes{192, 168, 64, 1}, 31));
    EXPECT_FALSE(prefixMatches(a, Bytes{192, 168, 64, 1}, 32));
    EXPECT_FALSE(prefixMatches(a, Bytes{64, 168, 64, 0}, 1));
}

TEST(AddressesTest, ClampsTheBitsToThoseThatAreThere) {
    const Bytes a = {192, 168, 64, 0};
    EXPECT_TRUE(prefixMatches(a, Bytes{1, 2, 3, 4}, 0));
    EXPECT_TRUE(prefixMatches(a, Bytes{1, 2, 3, 4}, -1));
    EXPECT_TRUE(prefixMatches(a, Bytes{1, 2, 3, 4}, std::numeric_limits<int>::min()));
    EXPECT_TRUE(prefixMatches(a, a, 33));
    EXPECT_TRUE(prefixMatches(a, a, std::numeric_limits<int>::max()));
    EXPECT_FALSE(prefixMatches(a, Bytes{192, 168, 64, 1}, std::numeric_limits<int>::max()));
    EXPECT_TRUE(prefixMatches(Bytes{}, Bytes{}, 8));
}

TEST(AddressesTest, TellsAddressesOfDifferentLengthApart) {
    EXPECT_FALSE(prefixMatches(Bytes{192, 168, 64, 0}, Bytes(16), 0));
    EXPECT_FALSE(prefixMatches(Bytes{}, Bytes{0}, 0));
}

TEST(AddressesTest, PutsSubnetsIntoCanonicalForm) {
    const std::vector<Case> cases = {
        {"192.168.64.0/24", "192.168.64.0/24"},
        {" 192.168.64.1/24", "192.168.64.0/24"},
        {"192.168.64.77/24", "192.168.64.0/24"},
        {"192.168.64.0/20", "192.168.64.0/20"},
        {"192.168.79.255/20", "192.168.64.0/20"},
        {"192.168.255.255/30", "192.168.255.252/30"},
        {"192.168.0.0/20", "192.168.0.0/20"},
        {"192.168.64.130/25\t", "192.168.64.128/25"},
        {"192.168.64.0/19", "nothing"},
        {"192.168.64.0/31", "nothing"},
        {"192.168.64.0/32", "nothing"},
        {"192.168.64.0", "nothing"},
        {"192.168.0.0/16", "nothing"},
        {"192.169.0.0/24", "nothing"},
        {"192.167.255.0/24", "nothing"},
        {"10.0.0.0/24", "nothing"},
        {"192.168.64.0/24 /x", "nothing"},
        {"192.168.64.0/024", "nothing"},
        {"any", "nothing"},
        {"", "nothing"},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(orNothing(canonicalSubnet(each.text)), each.result) << each.text;
    }
}

TEST(AddressesTest, PutsRemotesIntoCanonicalForm) {
    const std::vector<Case> cases = {
        {"any", "any"},
        {"ANY", "any"},
        {" \tAny ", "any"},
        {"", "any"},
        {" \t\u3000", "any"},
        {"10.1.2.3", "10.1.2.3/32"},
        {"10.0.0.1/8", "10.0.0.1/8"},
        {"10.0.0.0/08", "10.0.0.0/8"},
        {" 255.255.255.255/32 ", "255.255.255.255/32"},
        {"0.0.0.0/0", "0.0.0.0/0"},
        {"10.0.0/8", "nothing"},
        {"any/8", "nothing"},
        {"an", "nothing"},
        {"anyone", "nothing"},
        {"any\n", "nothing"},
        {"\n", "nothing"},
        {"a ny", "nothing"},
        {"any\0"s, "nothing"},
        {"10.0.0.0/8, 172.16.0.0/12", "nothing"},
        {"!10.0.0.0/8", "nothing"},
        {"<table>", "nothing"},
        {"fe80::1", "nothing"},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(orNothing(normalizedRemote(each.text)), each.result) << each.text;
    }
}

TEST(AddressesTest, PutsPortsIntoCanonicalForm) {
    const std::vector<Case> cases = {
        {"443", "443"},
        {"8000-8080", "8000:8080"},
        {"8000:8080", "8000:8080"},
        {"80-80", "80:80"},
        {"443-", "443"},
        {"-443", "443"},
        {":443:", "443"},
        {"80--90", "80:90"},
        {"-:80:-:90-:", "80:90"},
        {" 22\t", "22"},
        {"1", "1"},
        {"65535", "65535"},
        {"1-65535", "1:65535"},
        {"00022", "22"},
        {"+80", "80"},
        {"+80-+90", "80:90"},
        {"8080-8000", "nothing"},
        {"0", "nothing"},
        {"65536", "nothing"},
        {"1-65536", "nothing"},
        {"0-80", "nothing"},
        {"1-2-3", "nothing"},
        {"1-1-1", "nothing"},
        {"abc", "nothing"},
        {"80-abc", "nothing"},
        {"80,443", "nothing"},
        {"80 - 90", "nothing"},
        {"80 90", "nothing"},
        {"8 0", "nothing"},
        {"80\n", "nothing"},
        {"80\0"s, "nothing"},
        {"-", "nothing"},
        {":", "nothing"},
        {"-:-", "nothing"},
        {"++80", "nothing"},
        {"0x50", "nothing"},
        {"\u0668\u0660", "nothing"},
        {"99999999999999999999", "nothing"},
        {"80\u201390", "nothing"},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(orNothing(normalizedPorts(each.text)), each.result) << each.text;
    }
}

TEST(AddressesTest, LooksAtPortsOnlyWhereTheyMatter) {
    using Proto = FirewallRule::Proto;
    const auto portsOfRule = [](Proto proto, const std::string& ports) {
        FirewallRule rule;
        rule.proto = proto;
        rule.ports = ports;
        return portsOf(rule);
    };
    for (const Proto proto : {Proto::any, Proto::tcp, Proto::udp}) {
        EXPECT_THAT(portsOfRule(proto, ""), Optional(Ports{}));
        EXPECT_THAT(portsOfRule(proto, " \t\u00A0"), Optional(Ports{}));
        EXPECT_THAT(portsOfRule(proto, "22"), Optional(Ports{.first = 22, .last = std::nullopt}));
        EXPECT_THAT(portsOfRule(proto, "1:2"), Optional(Ports{.first = 1, .last = 2}));
        EXPECT_THAT(portsOfRule(proto, "abc"), Eq(std::nullopt));
        EXPECT_THAT(portsOfRule(proto, "\n"), Eq(std::nullopt));
    }
    EXPECT_THAT(portsOfRule(Proto::icmp, "22"), Optional(Ports{}));
    EXPECT_THAT(portsOfRule(Proto::icmp, "abc"), Optional(Ports{}));
}

// From here on, random texts are compared with slow models of the same rules, made of regular
// expressions, integers and bit strings. No address has leading zeros: systems differ on them.

class AddressesPropertyTest : public testing::Test {
protected:
    static constexpr int rounds = 4'000;

    std::size_t below(std::size_t bound) { return random() % bound; }
    std::string number(std::size_t bound) { return std::to_string(below(bound)); }

    const std::string& oneOf(const std::vector<std::string>& texts) {
        return texts[below(texts.size())];
    }

    /// A text that is mostly an address, a CIDR or nearly one.
    std::string address() {
        std::string text = oneOf({"", "", "", " ", "\t", "\n", "/"});
        const std::size_t parts = below(8) == 0 ? below(6) : 4;
        for (std::size_t i = 0; i < parts; ++i) {
            text += (i == 0 ? "" : ".") + number(below(8) == 0 ? 300 : 256);
        }
        if (below(3) != 0) {
            text += "/" + oneOf({number(33), number(33), number(33), number(120), "024", "", "a"});
        }
        return text + oneOf({"", "", "", "", " ", "\t ", "\n", "/8", "x", "\u00A0"});
    }

    /// The same for subnets of virtual networks.
    std::string subnet() {
        return below(6) == 0 ? address()
                             : "192.168." + number(256) + "." + number(256) + "/" +
                                   std::to_string(18 + below(15));
    }

    std::string ports() {
        std::string text;
        for (auto left = 1 + below(4); left > 0; --left) {
            text += oneOf(
                {"22",
                 "443",
                 "0",
                 "65535",
                 "65536",
                 "+7",
                 "-",
                 ":",
                 "--",
                 " ",
                 "x",
                 "8080",
                 number(70'000),
                 number(70'000) + "-" + number(70'000)});
        }
        return text;
    }

    std::mt19937 random{7};  // NOLINT(cert-msc51-cpp): the same cases in every run
};

std::string trimmedByRegex(const std::string& text) {
    static const test::Pattern ends("^(?:[ \\t]|\u00A0)+|(?:[ \\t]|\u00A0)+$");
    return ends.replaceAll(text, "");
}

struct SlowCIDR {
    std::uint32_t address = 0;
    unsigned prefixLength = 32;
};

std::optional<SlowCIDR> slowCIDR(const std::string& text) {
    static const test::Pattern form(R"((\d+)\.(\d+)\.(\d+)\.(\d+)(?:/(\d\d?))?)");
    const auto match = form.groupsOf(trimmedByRegex(text));
    if (match.empty()) {
        return std::nullopt;
    }
    SlowCIDR cidr;
    for (std::size_t i = 1; i <= 4; ++i) {
        const auto part = std::stoul(match[i]);
        if (part > 255) {
            return std::nullopt;
        }
        cidr.address = cidr.address * 256 + static_cast<std::uint32_t>(part);
    }
    if (!match[5].empty()) {
        cidr.prefixLength = static_cast<unsigned>(std::stoul(match[5]));
    }
    return cidr.prefixLength > 32 ? std::nullopt : std::optional(cidr);
}

std::string slowText(const SlowCIDR& cidr) {
    std::string text;
    std::uint32_t rest = cidr.address;
    for (const std::uint32_t place : {1U << 24, 1U << 16, 1U << 8, 1U}) {
        text += (text.empty() ? "" : ".") + std::to_string(rest / place);
        rest %= place;
    }
    return text + "/" + std::to_string(cidr.prefixLength);
}

TEST_F(AddressesPropertyTest, ReadsRemotesAsRegularExpressionsDo) {
    int understood = 0;
    for (int round = 0; round < rounds; ++round) {
        const std::string text = address();
        const auto slow = slowCIDR(text);
        const std::string expected = slow                           ? slowText(*slow)
                                     : trimmedByRegex(text).empty() ? "any"
                                                                    : "nothing";

        ASSERT_EQ(orNothing(normalizedRemote(text)), expected) << text;

        understood += slow ? 1 : 0;
    }
    EXPECT_GT(understood, rounds / 4);
    EXPECT_LT(understood, rounds * 3 / 4);
}

TEST_F(AddressesPropertyTest, FindsSubnetsByIntegerArithmetic) {
    int understood = 0;
    for (int round = 0; round < rounds; ++round) {
        const std::string text = subnet();
        auto slow = slowCIDR(text);
        std::string expected = "nothing";
        if (slow && slow->prefixLength >= 20 && slow->prefixLength <= 30 &&
            slow->address / 65536 == 192 * 256 + 168) {
            slow->address -= slow->address % (1U << (32 - slow->prefixLength));
            expected = slowText(*slow);
            ++understood;
        }

        ASSERT_EQ(orNothing(canonicalSubnet(text)), expected) << text;
    }
    EXPECT_GT(understood, rounds / 4);
    EXPECT_LT(understood, rounds * 3 / 4);
}

TEST_F(AddressesPropertyTest, KnowsACanonicalSubnetAgain) {
    for (int round = 0; round < rounds; ++round) {
        const auto canonical = canonicalSubnet(subnet());
        if (canonical) {
            ASSERT_EQ(canonicalSubnet(*canonical), canonical);
            ASSERT_EQ(normalizedRemote(*canonical), canonical);
        }
    }
}

TEST_F(AddressesPropertyTest, ReadsPortsAsRegularExpressionsDo) {
    static const test::Pattern blank(" ");
    static const test::Pattern separators("[-:]+");
    static const test::Pattern one(R"(\+?(\d+))");
    static const test::Pattern two(R"(\+?(\d+) \+?(\d+))");
    const auto isPort = [](const std::string& digits) {
        return std::stod(digits) >= 1 && std::stod(digits) <= 65535;
    };
    int understood = 0;
    for (int round = 0; round < rounds; ++round) {
        const std::string text = ports();
        // A blank inside a number is an error, but would separate below: a letter takes its place.
        std::string pieces = blank.replaceAll(trimmedByRegex(text), "x");
        pieces = trimmedByRegex(separators.replaceAll(pieces, " "));
        std::string expected = "nothing";
        const auto single = one.groupsOf(pieces);
        const auto pair = two.groupsOf(pieces);
        if (!single.empty() && isPort(single[1])) {
            expected = std::to_string(std::stoul(single[1]));
        } else if (
            !pair.empty() && isPort(pair[1]) && isPort(pair[2]) &&
            std::stoul(pair[1]) <= std::stoul(pair[2])) {
            expected =
                std::to_string(std::stoul(pair[1])) + ":" + std::to_string(std::stoul(pair[2]));
        }

        ASSERT_EQ(orNothing(normalizedPorts(text)), expected) << text;

        understood += expected == "nothing" ? 0 : 1;
    }
    EXPECT_GT(understood, rounds / 8);
    EXPECT_LT(understood, rounds * 3 / 4);
}

TEST_F(AddressesPropertyTest, ComparesPrefixesAsBitStringsDo) {
    const auto bitString = [](const Bytes& bytes) {
        std::string bits;
        for (const std::uint8_t byte : bytes) {
            for (unsigned value = 128; value > 0; value /= 2) {
                bits += byte / value % 2 == 1 ? '1' : '0';
            }
        }
        return bits;
    };
    int matches = 0;
    for (int round = 0; round < rounds; ++round) {
        Bytes a(below(5) == 0 ? 16 : 4);
        std::ranges::generate(a, [&] { return static_cast<std::uint8_t>(random()); });
        Bytes b = a;
        if (below(20) == 0) {
            b.pop_back();
        } else if (below(5) != 0) {
            b[below(b.size())] ^= static_cast<std::uint8_t>(1U << below(8));
        }
        const int bits = static_cast<int>(below(160)) - 8;

        const auto count = static_cast<std::size_t>(std::max(bits, 0));
        const bool expected =
            a.size() == b.size() && bitString(a).substr(0, count) == bitString(b).substr(0, count);
        ASSERT_EQ(prefixMatches(a, b, bits), expected);

        matches += expected ? 1 : 0;
    }
    EXPECT_GT(matches, rounds / 8);
    EXPECT_LT(matches, rounds * 7 / 8);
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
