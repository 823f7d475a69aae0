// SPDX-License-Identifier: MIT

#include "pfctl/language/Rule.h"

#include <cstddef>

#include <gtest/gtest.h>

namespace tarnvale::pfctl {
namespace {

constexpr Rule fullRule{
    .action = Action::blockDrop,
    .direction = Direction::out,
    .protocol = Protocol::udp,
    .namesANetwork = true,
    .from =
        {.network = {.address = 0x0A0B0C00, .prefixLength = 22},
         .ports = {.kind = Ports::Kind::range, .first = 258, .last = 65535}},
    .to = {
        .network = {.address = 0xFFFFFFFF, .prefixLength = 32},
        .ports = {.kind = Ports::Kind::one, .first = 1, .last = 1}}};

TEST(RuleTest, ComesBackFromItsBytes) {
    EXPECT_EQ(unpackedRule(packed(fullRule)), fullRule);
    EXPECT_EQ(unpackedRule(packed(Rule())), Rule());
}

TEST(RuleTest, IsNotMadeOfOtherBytes) {
    const auto bytes = packed(fullRule);
    const auto changed = [&bytes](std::size_t at, std::uint8_t value) {
        auto copy = bytes;
        copy.at(at) = value;
        return unpackedRule(copy);
    };

    EXPECT_EQ(unpackedRule({}), std::nullopt);
    EXPECT_EQ(unpackedRule(std::span(bytes).first(bytes.size() - 1)), std::nullopt);
    EXPECT_EQ(changed(0, 7), std::nullopt) << "protocol";
    EXPECT_EQ(changed(1, 2), std::nullopt) << "action";
    EXPECT_EQ(changed(2, 4), std::nullopt) << "flags";
    EXPECT_EQ(changed(7, 33), std::nullopt) << "prefix length";
    EXPECT_EQ(changed(6, 1), std::nullopt) << "host bits";
    EXPECT_EQ(changed(8, 3), std::nullopt) << "kind of ports";
    EXPECT_EQ(changed(11, 0), std::nullopt) << "range upside down";
}

TEST(RuleTest, HasTheNetworkSideAsItsKey) {
    Rule rule = fullRule;

    EXPECT_EQ(rule.keySide(), rule.to);
    EXPECT_EQ(rule.farSide(), rule.from);
    rule.direction = Direction::in;
    EXPECT_EQ(rule.keySide(), rule.from);
    EXPECT_EQ(rule.farSide(), rule.to);
}

TEST(RuleTest, KnowsTheEndsOfANetwork) {
    const Network everything;
    const Network lower{.address = 0xC0A84000, .prefixLength = 20};

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
