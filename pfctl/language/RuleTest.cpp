// SPDX-License-Identifier: MIT

#include "pfctl/language/Rule.h"

#include <gtest/gtest.h>

namespace tarnvale::pfctl {
namespace {

TEST(RuleTest, HasTheNetworkSideAsItsKey) {
    Rule rule;
    rule.from.subnet = {.address = 0x0A0B0C00, .prefixLength = 22};
    rule.to.subnet = {.address = 0xFFFFFFFF, .prefixLength = 32};

    rule.direction = Direction::out;
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
