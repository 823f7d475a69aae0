// SPDX-License-Identifier: MIT

#include "pfctl/language/Rule.h"

#include <gtest/gtest.h>

namespace tarnvale::pfctl {
namespace {

constexpr Rule fullRule{
    .action = Action::blockDrop,
    .direction = Direction::out,
    .protocol = Protocol::udp,
    .namesASubnet = true,
    .from =
        {.subnet = {.address = 0x0A0B0C00, .prefixLength = 22},
         .ports = {.kind = Ports::Kind::range, .first = 258, .last = 65535}},
    .to = {
        .subnet = {.address = 0xFFFFFFFF, .prefixLength = 32},
        .ports = {.kind = Ports::Kind::one, .first = 1, .last = 1}}};

TEST(RuleTest, HasTheNetworkSideAsItsKey) {
    Rule rule = fullRule;

    EXPECT_EQ(rule.keySide(), rule.to);
    EXPECT_EQ(rule.farSide(), rule.from);
    rule.direction = Direction::in;
    EXPECT_EQ(rule.keySide(), rule.from);
    EXPECT_EQ(rule.farSide(), rule.to);
}

TEST(RuleTest, KnowsTheEndsOfANetwork) {
    const Subnet everything;
    const Subnet lower{.address = 0xC0A84000, .prefixLength = 20};

    EXPECT_EQ(everything.last(), 0xFFFFFFFF);
    EXPECT_TRUE(everything.contains(0));
    EXPECT_TRUE(everything.contains(0xFFFFFFFF));
    EXPECT_EQ(lower.last(), 0xC0A84FFF);
    EXPECT_TRUE(lower.contains(0xC0A84000));
    EXPECT_TRUE(lower.contains(0xC0A84FFF));
    EXPECT_FALSE(lower.contains(0xC0A83FFF));
    EXPECT_FALSE(lower.contains(0xC0A85000));
}

}  // namespace
}  // namespace tarnvale::pfctl
