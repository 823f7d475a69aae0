// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Der.h"

#include <optional>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/GuardedText.h"

namespace tarnvale::platform::der {
namespace {

using namespace std::string_view_literals;

struct Element {
    std::string_view bytes;
    std::optional<std::string_view> content;
};

TEST(DerTest, TakesAnElementWhoseLengthIsThere) {
    const std::vector<Element> elements = {
        {"\x04\x00"sv, ""sv},
        {"\x04\x02xy"sv, "xy"sv},
        {"\x04\x81\x02xy"sv, "xy"sv},
        {"\x04\x82\x00\x02xy"sv, "xy"sv},
        {"\x04\x83\x00\x00\x02xy"sv, "xy"sv},
        {"\x04\x84\x00\x00\x00\x02xy"sv, std::nullopt},  // more than any message needs
        {"\x04\x80xy\x00\x00"sv, std::nullopt},          // an indefinite length
        {"\x04\x82\x00"sv, std::nullopt},
        {"\x04\x83\x00\x00"sv, std::nullopt},
        {"\x04\x03xy"sv, std::nullopt},
        {"\x04"sv, std::nullopt},
        {""sv, std::nullopt},
        {"\x30\x02xy"sv, std::nullopt},  // another tag
    };
    test::GuardedText guard(16);
    for (const auto& element : elements) {
        auto rest = guard.hold(element.bytes);
        EXPECT_EQ(take(rest, octetString), element.content) << testing::PrintToString(rest);
        EXPECT_EQ(rest, element.content ? ""sv : element.bytes);
        EXPECT_EQ(takeOnly(guard.hold(element.bytes), octetString), element.content);
    }
}

TEST(DerTest, LeavesWhatFollowsAnElement) {
    auto rest = "\x04\x01x\x04\x00"sv;

    EXPECT_EQ(takeOnly(rest, octetString), std::nullopt);
    EXPECT_EQ(take(rest, octetString), "x");
    EXPECT_EQ(take(rest, octetString), "");
    EXPECT_EQ(rest, "");
}

}  // namespace
}  // namespace tarnvale::platform::der
