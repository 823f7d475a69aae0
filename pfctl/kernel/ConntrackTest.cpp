// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Conntrack.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "pfctl/kernel/MarkBits.h"
#include "tests/support/GuardedText.h"

namespace tarnvale::pfctl {
namespace {

const Subnet lab{.address = 0xC0A84000, .prefixLength = 24};

constexpr std::string_view outward =
    "ipv4     2 udp      17 29 src=192.168.64.2 dst=10.1.0.2 sport=40000 dport=53 [UNREPLIED] "
    "src=10.1.0.2 dst=192.168.64.2 sport=53 dport=40000 mark=268435456 zone=0 use=2\n";
constexpr std::string_view inward =
    "ipv4     2 tcp      6 431999 ESTABLISHED src=10.1.0.2 dst=10.1.0.1 sport=40000 dport=22 "
    "src=192.168.64.2 dst=10.1.0.2 sport=22 dport=40000 [ASSURED] mark=0 zone=0 use=2\n";
constexpr std::string_view foreign =
    "ipv4     2 icmp     1 29 src=10.1.0.2 dst=10.1.0.3 type=8 code=0 id=7 src=10.1.0.3 "
    "dst=10.1.0.2 type=0 code=0 id=7 mark=0 zone=0 use=2\n";
constexpr std::string_view newer =
    "ipv6     10 udp      17 29 src=fe80::1 dst=fe80::2 sport=1 dport=2 src=fe80::2 dst=fe80::1 "
    "sport=2 dport=1 mark=0 zone=0 use=2\n";

bool mayName(std::string_view list, const std::vector<Subnet>& hosts) {
    return Conntrack::mayName(list, hosts);
}

TEST(ConntrackTest, FindsAnInitiatorInTheList) {
    EXPECT_TRUE(mayName(outward, {lab}));
    EXPECT_FALSE(mayName(inward, {lab}));
    EXPECT_TRUE(mayName(std::string(foreign) + std::string(outward), {lab}));
}

TEST(ConntrackTest, FindsAResponderBehindTranslation) {
    EXPECT_TRUE(mayName(inward, {Subnet(), lab}));
    EXPECT_FALSE(mayName(outward, {Subnet(), lab}));
    EXPECT_FALSE(mayName(foreign, {Subnet(), lab}));
    EXPECT_FALSE(mayName(inward, {lab, lab}));
}

TEST(ConntrackTest, FindsNothingInAListOfOthers) {
    EXPECT_FALSE(mayName("", {lab}));
    EXPECT_FALSE(mayName(foreign, {lab}));
    EXPECT_FALSE(mayName(newer, {Subnet()}));
}

TEST(ConntrackTest, TakesWhatItDoesNotUnderstandForAConnection) {
    EXPECT_TRUE(mayName("nonsense\n", {lab}));
    EXPECT_TRUE(mayName("ipv4 2 udp 17 src=here dst=there src=there dst=here\n", {lab}));
    EXPECT_TRUE(mayName("ipv4 2 udp 17 src=10.1.0.2 dst=10.1.0.3\n", {lab}));
    EXPECT_TRUE(mayName("ipv4 2 udp 17 src=10.1.0.2 src=10.1", {Subnet(), lab}));
}

TEST(ConntrackTest, FindsAStateInTheList) {
    EXPECT_TRUE(Conntrack::mayHoldState(std::string(foreign) + std::string(outward)));
    EXPECT_TRUE(Conntrack::mayHoldState("ipv4 2 tcp 6 mark=4294967295 use=2\n"));
    EXPECT_TRUE(Conntrack::mayHoldState("ipv4 2 tcp 6 use=2 mark=536870912\n"));
}

TEST(ConntrackTest, FindsNoStateInAListOfConnectionsThatNoRulePassed) {
    EXPECT_FALSE(Conntrack::mayHoldState(""));
    EXPECT_FALSE(Conntrack::mayHoldState(std::string(inward) + std::string(foreign)));
    EXPECT_FALSE(Conntrack::mayHoldState("ipv4 2 tcp 6 mark=268435455 use=2\n"));
    EXPECT_FALSE(Conntrack::mayHoldState("ipv6 10 udp 17 mark=268435456 use=2\n"));
}

TEST(ConntrackTest, TakesAMarkThatItDoesNotUnderstandForAState) {
    EXPECT_TRUE(Conntrack::mayHoldState("nonsense\n"));
    EXPECT_TRUE(Conntrack::mayHoldState("ipv4 2 tcp 6 use=2\n"));
    EXPECT_TRUE(Conntrack::mayHoldState("ipv4 2 tcp 6 mark= use=2\n"));
    EXPECT_TRUE(Conntrack::mayHoldState("ipv4 2 tcp 6 mark=0x0 use=2\n"));
    EXPECT_TRUE(Conntrack::mayHoldState("ipv4 2 tcp 6 mark=4294967296 use=2\n"));
}

TEST(ConntrackTest, ReadsNothingBehindTheList) {
    test::readEveryBeginning(outward.substr(0, outward.size() - 1), [](std::string_view list) {
        const std::string line = std::string(list) + "\n";
        EXPECT_EQ(mayName(list, {lab}), !list.empty()) << list;
        EXPECT_EQ(mayName(list, {Subnet(), lab}), !list.empty() && mayName(line, {Subnet(), lab}));
        EXPECT_EQ(Conntrack::mayHoldState(list), !list.empty() && Conntrack::mayHoldState(line))
            << list;
    });
}

TEST(ConntrackTest, KnowsAStateByItsMark) {
    EXPECT_FALSE(Connection().hasState());
    EXPECT_FALSE((Connection{.entering = {}, .leaving = {}, .mark = 0x0FFFFFFF}).hasState());
    EXPECT_TRUE((Connection{.entering = {}, .leaving = {}, .mark = initiatorPassesIn}).hasState());
    EXPECT_TRUE((Connection{.entering = {}, .leaving = {}, .mark = initiatorPassesOut}).hasState());
}

}  // namespace
}  // namespace tarnvale::pfctl
