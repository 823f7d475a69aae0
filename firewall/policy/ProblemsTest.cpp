// SPDX-License-Identifier: MIT

#include "firewall/policy/Problems.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::NetworkFirewall {
namespace {

using testing::Eq;
using testing::Optional;
using Hosts = std::vector<HostAddress>;
using Proto = FirewallRule::Proto;

HostAddress host(
    const std::string& interface, const std::vector<std::uint8_t>& bytes, int prefixLength) {
    return {.interface = interface, .bytes = bytes, .prefixLength = prefixLength};
}

FirewallRule rule(Proto proto, const std::string& remoteCIDR, const std::string& ports) {
    FirewallRule made;
    made.enabled = true;
    made.proto = proto;
    made.remoteCIDR = remoteCIDR;
    made.ports = ports;
    return made;
}

TEST(ProblemsTest, HasNoProblemWithAVirtualNetworksSubnet) {
    EXPECT_THAT(subnetProblem("192.168.64.0/24", {}), Eq(std::nullopt));
    EXPECT_THAT(
        subnetProblem("192.168.64.0/24", Hosts{host("en0", {10, 0, 0, 5}, 8)}), Eq(std::nullopt));
}

TEST(ProblemsTest, SaysWhenNoVirtualNetworkHasTheSubnet) {
    EXPECT_THAT(
        subnetProblem("10.0.0.0/24", {}),
        Optional(std::string(
            "the subnet \"10.0.0.0/24\" isn't one macOS gives a virtual network (a /24 such as "
            "192.168.64.0/24, inside 192.168.0.0/16), so its rules can't be keyed on it.")));
}

TEST(ProblemsTest, QuotesTheSubnetAsItWasSent) {
    EXPECT_THAT(
        subnetProblem(" \"x\"\n", {}),
        Optional(std::string(
            "the subnet \" \"x\"\n\" isn't one macOS gives a virtual network (a /24 such as "
            "192.168.64.0/24, inside 192.168.0.0/16), so its rules can't be keyed on it.")));
    EXPECT_THAT(
        subnetProblem("", {}),
        Optional(std::string(
            "the subnet \"\" isn't one macOS gives a virtual network (a /24 such as "
            "192.168.64.0/24, inside 192.168.0.0/16), so its rules can't be keyed on it.")));
}

TEST(ProblemsTest, SaysWhichOwnNetworkTheSubnetOverlaps) {
    EXPECT_THAT(
        subnetProblem("192.168.1.0/24", Hosts{host("en0", {192, 168, 1, 20}, 24)}),
        Optional(std::string(
            "192.168.1.0/24 overlaps en0 (192.168.1.20), one of this Mac's own networks; rules "
            "there would cut the Mac off from it.")));
}

TEST(ProblemsTest, NamesTheSubnetInCanonicalFormWhenItOverlaps) {
    EXPECT_THAT(
        subnetProblem(" 192.168.1.99/20 ", Hosts{host("en0", {192, 168, 1, 20}, 24)}),
        Optional(std::string(
            "192.168.0.0/20 overlaps en0 (192.168.1.20), one of this Mac's own networks; rules "
            "there would cut the Mac off from it.")));
}

TEST(ProblemsTest, NamesTheFirstOfSeveralOwnNetworks) {
    const Hosts hosts = {
        host("en0", {10, 0, 0, 5}, 8),
        host("bridge100", {192, 168, 64, 1}, 24),
        host("en1", {192, 168, 64, 7}, 24),
        host("en2", {192, 168, 64, 8}, 24),
    };

    EXPECT_THAT(
        subnetProblem("192.168.64.0/24", hosts),
        Optional(std::string(
            "192.168.64.0/24 overlaps en1 (192.168.64.7), one of this Mac's own networks; rules "
            "there would cut the Mac off from it.")));
}

TEST(ProblemsTest, LetsTheShorterPrefixDecide) {
    const Hosts wide = {host("en0", {192, 168, 0, 5}, 16)};
    EXPECT_THAT(
        subnetProblem("192.168.200.0/24", wide),
        Optional(std::string(
            "192.168.200.0/24 overlaps en0 (192.168.0.5), one of this Mac's own networks; rules "
            "there would cut the Mac off from it.")));
    EXPECT_TRUE(subnetProblem("192.168.0.0/20", wide));
    EXPECT_TRUE(subnetProblem("192.168.255.252/30", wide));

    const Hosts single = {host("utun3", {192, 168, 64, 200}, 32)};
    EXPECT_TRUE(subnetProblem("192.168.64.0/24", single));
    EXPECT_FALSE(subnetProblem("192.168.64.0/25", single));

    EXPECT_TRUE(subnetProblem("192.168.64.0/24", Hosts{host("tap0", {1, 2, 3, 4}, 0)}));
    EXPECT_FALSE(subnetProblem("192.168.64.0/24", Hosts{host("en0", {192, 168, 65, 1}, 24)}));
    EXPECT_TRUE(subnetProblem("192.168.64.0/24", Hosts{host("en0", {192, 168, 65, 1}, 23)}));
}

TEST(ProblemsTest, PassesOverTheBridgesOfVirtualNetworks) {
    for (const char* const name :
         {"bridge100", "bridge101", "bridge0100", "bridge+100", "bridge12345678"}) {
        EXPECT_FALSE(subnetProblem("192.168.1.0/24", Hosts{host(name, {192, 168, 1, 20}, 24)}))
            << name;
        EXPECT_FALSE(isOfOwnNetwork(host(name, {192, 168, 1, 20}, 24))) << name;
    }
}

TEST(ProblemsTest, TestsEveryOtherInterfaceLikeAnyOther) {
    const std::vector<std::string> names = {
        "en0",
        "bridge",
        "bridge0",
        "bridge7",
        "bridge99",
        "bridge099",
        "bridge-100",
        "bridge100x",
        "bridge 100",
        "bridge100 ",
        "bridge1e3",
        "bridge99999999999999999999",
        "Bridge100",
        "xbridge100",
        "br100",
        "vmnet8",
        "",
    };
    for (const std::string& name : names) {
        EXPECT_THAT(
            subnetProblem("192.168.1.0/24", Hosts{host(name, {192, 168, 1, 20}, 24)}),
            Optional(
                "192.168.1.0/24 overlaps " + name +
                " (192.168.1.20), one of this Mac's own networks; rules there would cut the Mac "
                "off from it."));
    }
}

TEST(ProblemsTest, NeverHasAProblemWithAnIPv6Address) {
    const std::vector<std::uint8_t> mapped = {192, 168, 1, 20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

    EXPECT_FALSE(subnetProblem("192.168.1.0/24", Hosts{host("en0", mapped, 24)}));
    EXPECT_FALSE(subnetProblem("192.168.1.0/24", Hosts{host("en0", mapped, 0)}));
    EXPECT_FALSE(isOfOwnNetwork(host("en0", mapped, 24)));
}

TEST(ProblemsTest, HasNoProblemWithARuleThatCanBeWritten) {
    EXPECT_THAT(ruleProblem(rule(Proto::tcp, "10.0.0.0/8", "22")), Eq(std::nullopt));
    EXPECT_THAT(ruleProblem(rule(Proto::any, "", "")), Eq(std::nullopt));
    EXPECT_THAT(ruleProblem(rule(Proto::udp, "Any", " \t")), Eq(std::nullopt));
    EXPECT_THAT(ruleProblem(rule(Proto::any, "1.1.1.1", "53-")), Eq(std::nullopt));
}

TEST(ProblemsTest, IgnoresThePortsOfIcmp) {
    EXPECT_THAT(ruleProblem(rule(Proto::icmp, "10.0.0.0/8", "abc")), Eq(std::nullopt));
    EXPECT_TRUE(ruleProblem(rule(Proto::icmp, "10.0.0/8", "abc")));
}

TEST(ProblemsTest, SaysWhenTheRemoteIsNoAddress) {
    EXPECT_THAT(
        ruleProblem(rule(Proto::any, "10.0.0/8", "")),
        Optional(std::string("\"10.0.0/8\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).")));
    EXPECT_THAT(
        ruleProblem(rule(Proto::any, " fe80::1 ", "")),
        Optional(std::string("\" fe80::1 \" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).")));
}

TEST(ProblemsTest, SaysWhenThePortsAreNone) {
    for (const Proto proto : {Proto::any, Proto::tcp, Proto::udp}) {
        EXPECT_THAT(
            ruleProblem(rule(proto, "any", "99999")),
            Optional(std::string(
                "\"99999\" isn't a port or port range (1–65535, such as 443 or 8000-8080).")));
    }
    EXPECT_THAT(
        ruleProblem(rule(Proto::tcp, "any", " 80,443 ")),
        Optional(std::string(
            "\" 80,443 \" isn't a port or port range (1–65535, such as 443 or 8000-8080).")));
}

TEST(ProblemsTest, TellsTheRemotesFaultOfTwo) {
    EXPECT_THAT(
        ruleProblem(rule(Proto::tcp, "nowhere", "99999")),
        Optional(std::string("\"nowhere\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).")));
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
