// SPDX-License-Identifier: MIT

#include "pfctl/kernel/UserData.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/GuardedText.h"

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

TEST(UserDataTest, GivesARuleBackFromItsBytes) {
    EXPECT_EQ(unpackedRule(packed(fullRule)), fullRule);
    EXPECT_EQ(unpackedRule(packed(Rule())), Rule());
}

TEST(UserDataTest, MakesNoRuleOfOtherBytes) {
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

TEST(UserDataTest, KnowsItsOwnTablesByTheirUserData) {
    const auto loaderOf = [](std::string_view comment) {
        std::vector<std::uint8_t> data{0, static_cast<std::uint8_t>(comment.size() + 1)};
        data.insert(data.end(), comment.begin(), comment.end());
        data.push_back(0);
        return loaderFromUserData(data);
    };

    EXPECT_EQ(
        loaderOf("pf anchor, form 1, loaded by uid 4294967295 pid 68"),
        (Loader{.uid = 4294967295, .pid = 68}));
    for (const std::string_view comment :
         {"",
          "somebody's table",
          "pf anchor, form 2, loaded by uid 0 pid 68",
          "pf anchor, form 1, loaded by uid pid 68",
          "pf anchor, form 1, loaded by uid 0 pid ",
          "pf anchor, form 1, loaded by uid 0 pid 68 ",
          "pf anchor, form 1, loaded by uid 4294967296 pid 68"}) {
        EXPECT_EQ(loaderOf(comment), std::nullopt) << comment;
    }
    EXPECT_EQ(loaderFromUserData({}), std::nullopt);
    EXPECT_EQ(loaderFromUserData(std::array<std::uint8_t, 3>{0, 200, 'p'}), std::nullopt);
}

TEST(UserDataTest, GivesALineBackFromItsUserDataAndFromThatOfAnOlderForm) {
    const NumberedRule line{.index = 0x0000000500000007, .rule = fullRule};
    const auto data = lineUserData(line);
    std::vector<std::uint8_t> older{0xF0, static_cast<std::uint8_t>(data.size() - 6)};
    older.insert(older.end(), data.begin() + 6, data.end());

    ASSERT_TRUE(ruleFromUserData(data) && ruleFromUserData(older));
    EXPECT_EQ(ruleFromUserData(data)->index, line.index);
    EXPECT_EQ(ruleFromUserData(data)->rule, fullRule);
    EXPECT_EQ(ruleFromUserData(older)->index, 7U);
    EXPECT_EQ(ruleFromUserData(older)->rule, fullRule);
}

TEST(UserDataTest, GivesALoadBackFromItsUserData) {
    const LoadRecord load{
        .loader = {.uid = 4294967295, .pid = 68},
        .generation = 0x01020304,
        .key = {1, 2, 3},
        .shape = {4, 5, 6}};
    const auto data = loadUserData(load);

    EXPECT_EQ(loadFromUserData(data), load);
    EXPECT_EQ(loadFromUserData(std::span(data).first(data.size() - 1)), std::nullopt);
    EXPECT_EQ(loadFromUserData(blockUserData({})), std::nullopt);
    EXPECT_EQ(loadFromUserData({}), std::nullopt);
}

TEST(UserDataTest, GivesTheFingerprintOfABlockBack) {
    const Fingerprint lines{1, 2, 3, 4};

    EXPECT_EQ(blockFromUserData(blockUserData(lines)), lines);
    EXPECT_EQ(blockFromUserData(loadUserData({})), std::nullopt);
    EXPECT_EQ(blockFromUserData({}), std::nullopt);
}

TEST(UserDataTest, TakesNoOtherUserDataForALine) {
    EXPECT_EQ(ruleFromUserData({}), std::nullopt);
    EXPECT_EQ(ruleFromUserData(std::array<std::uint8_t, 2>{0xF0, 0}), std::nullopt);
    EXPECT_EQ(ruleFromUserData(std::array<std::uint8_t, 4>{0xF0, 200, 0, 0}), std::nullopt);
    EXPECT_EQ(ruleFromUserData(std::array<std::uint8_t, 6>{0xF0, 4, 0, 0, 0, 0}), std::nullopt);
    EXPECT_EQ(
        ruleFromUserData(std::array<std::uint8_t, 6>{0x00, 4, 'l', 'i', 'n', 0}), std::nullopt);
}

/// Of how many beginnings of the user data it is one of ours.
int timesKnown(std::span<const std::uint8_t> userData) {
    int count = 0;
    const std::string_view all(reinterpret_cast<const char*>(userData.data()), userData.size());
    test::readEveryBeginning(all, [&count](std::string_view text) {
        const netlink::Bytes bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
        count += loaderFromUserData(bytes) || ruleFromUserData(bytes) || loadFromUserData(bytes) ||
                         blockFromUserData(bytes)
                     ? 1
                     : 0;
    });
    return count;
}

TEST(UserDataTest, ReadsNothingBehindTheBytes) {
    EXPECT_EQ(timesKnown(loaderUserData({.uid = 0, .pid = 68})), 1);
    EXPECT_EQ(timesKnown(lineUserData({.index = 7, .rule = fullRule})), 1);
    EXPECT_EQ(timesKnown(loadUserData({})), 1);
    EXPECT_EQ(timesKnown(blockUserData({})), 1);
}

}  // namespace
}  // namespace tarnvale::pfctl
