// SPDX-License-Identifier: MIT

#include "support/Decimal.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::support {
namespace {

using namespace std::string_literals;
using testing::Eq;
using testing::Optional;

TEST(DecimalTest, ReadsIntegers) {
    struct Case {
        std::string_view text;
        std::int64_t value;
    };
    const std::vector<Case> cases = {
        {"0", 0},
        {"7", 7},
        {"-7", -7},
        {"+80", 80},
        {"-0", 0},
        {"+0", 0},
        {"007", 7},
        {"-0099", -99},
        {"00000000000000000000000000000000042", 42},
        {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
    };
    for (const Case& each : cases) {
        EXPECT_THAT(parseDecimal(each.text), Optional(each.value)) << each.text;
    }
}

TEST(DecimalTest, RefusesWhatIsNotAnInteger) {
    const std::vector<std::string> texts = {
        "",
        "+",
        "-",
        "+-1",
        "-+1",
        "++1",
        "--1",
        " 1",
        "1 ",
        "1\n",
        "1a",
        "0x10",
        "1.0",
        "1e3",
        "1,000",
        "\u0661",
        "\uFF11",
        "\u22121",
        "1\0"s,
        "\0"s,
        "9223372036854775808",
        "-9223372036854775809",
        "99999999999999999999",
        "+9223372036854775808",
    };
    for (const std::string& text : texts) {
        EXPECT_THAT(parseDecimal(text), Eq(std::nullopt)) << text;
    }
}

TEST(DecimalTest, ReadsIntegersWithinBounds) {
    EXPECT_THAT(parseDecimal("+80", 1, 65535), Optional(80));
    EXPECT_THAT(parseDecimal("1", 1, 65535), Optional(1));
    EXPECT_THAT(parseDecimal("65535", 1, 65535), Optional(65535));
    EXPECT_THAT(parseDecimal("0", 1, 65535), Eq(std::nullopt));
    EXPECT_THAT(parseDecimal("-1", 1, 65535), Eq(std::nullopt));
    EXPECT_THAT(parseDecimal("65536", 1, 65535), Eq(std::nullopt));
}

TEST(DecimalTest, TakesTheNumberAtTheFront) {
    std::string_view text = "10.007/255";

    EXPECT_THAT(takeNumber<std::uint8_t>(text), Optional(10));
    EXPECT_EQ(text, ".007/255");
    text.remove_prefix(1);
    EXPECT_THAT(takeNumber<std::uint8_t>(text), Optional(7));
    EXPECT_EQ(text, "/255");
    text.remove_prefix(1);
    EXPECT_THAT(takeNumber<std::uint8_t>(text), Optional(255));
    EXPECT_EQ(text, "");
}

TEST(DecimalTest, LeavesTheTextWhereItTakesNothing) {
    const std::vector<std::string> texts = {
        "", "x", "-1", "+1", " 1", "33", "256", "0032767", "99999999999999999999"};
    for (const std::string& text : texts) {
        std::string_view rest = text;
        EXPECT_THAT(takeNumber<std::uint8_t>(rest, 32), Eq(std::nullopt)) << text;
        EXPECT_EQ(rest, text);
    }
}

TEST(DecimalTest, RefusesLeadingZerosWhereAsked) {
    constexpr auto refused = LeadingZeros::refused;
    for (const std::string_view text : {"00", "01", "007"}) {
        std::string_view rest = text;
        EXPECT_THAT(takeNumber<std::uint32_t>(rest, 255, refused), Eq(std::nullopt)) << text;
        EXPECT_EQ(rest, text);
        EXPECT_THAT(parseNumber<std::uint32_t>(text, 255, refused), Eq(std::nullopt)) << text;
    }
    EXPECT_THAT(parseNumber<std::uint32_t>("0", 255, refused), Optional(0U));
    EXPECT_THAT(parseNumber<std::uint32_t>("100", 255, refused), Optional(100U));
}

TEST(DecimalTest, ReadsNumbersThatAreTheWholeText) {
    EXPECT_THAT(parseNumber<std::uint16_t>("65535"), Optional(65535));
    EXPECT_THAT(
        parseNumber<std::uint64_t>("18446744073709551615"),
        Optional(std::numeric_limits<std::uint64_t>::max()));
    for (const std::string& text : {""s, "+1"s, "-1"s, "1 "s, "1\0"s, "65536"s, "0x1"s}) {
        EXPECT_THAT(parseNumber<std::uint16_t>(text), Eq(std::nullopt)) << text;
    }
}

}  // namespace
}  // namespace tarnvale::support
