// SPDX-License-Identifier: MIT

#include "support/Uuid.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::support {
namespace {

using testing::Optional;

constexpr std::string_view upper = "0123ABCD-4567-89EF-FEDC-BA9876543210";
constexpr Uuid sampleUuid{
    {0x01,
     0x23,
     0xAB,
     0xCD,
     0x45,
     0x67,
     0x89,
     0xEF,
     0xFE,
     0xDC,
     0xBA,
     0x98,
     0x76,
     0x54,
     0x32,
     0x10}};

TEST(UuidTest, ReadsDigitsOfEitherCase) {
    EXPECT_THAT(Uuid::parse(upper), Optional(sampleUuid));
    EXPECT_THAT(Uuid::parse("0123abcd-4567-89ef-fedc-ba9876543210"), Optional(sampleUuid));
    EXPECT_THAT(Uuid::parse("0123aBcD-4567-89Ef-FeDc-bA9876543210"), Optional(sampleUuid));
}

TEST(UuidTest, WritesUpperCase) {
    std::string text = "id ";
    sampleUuid.appendTo(text);

    EXPECT_EQ(sampleUuid.text(), upper);
    EXPECT_EQ(text, "id 0123ABCD-4567-89EF-FEDC-BA9876543210");
}

TEST(UuidTest, RefusesEveryOtherCharacterInEveryPlace) {
    for (std::size_t place = 0; place < upper.size(); ++place) {
        const bool isHyphen = upper[place] == '-';
        for (int byte = 0; byte < 256; ++byte) {
            const char c = static_cast<char>(byte);
            const bool isDigit =
                (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
            std::string text(upper);
            text[place] = c;

            EXPECT_EQ(Uuid::parse(text).has_value(), isHyphen ? c == '-' : isDigit)
                << "byte " << byte << " in place " << place;
        }
    }
}

TEST(UuidTest, RefusesEveryOtherLengthAndForm) {
    for (const char* const text :
         {"",
          "123ABCD-4567-89EF-FEDC-BA9876543210",
          "0123ABCD-4567-89EF-FEDC-BA98765432100",
          "0123ABCD-4567-89EF-FEDC-BA9876543210 ",
          " 0123ABCD-4567-89EF-FEDC-BA9876543210",
          "{0123ABCD-4567-89EF-FEDC-BA9876543210}",
          "urn:uuid:0123ABCD-4567-89EF-FEDC-BA9876543210",
          "0123ABCD456789EFFEDCBA9876543210",
          "0123ABCD-4567-89EFF-EDC-BA9876543210",
          "------------------------------------"}) {
        EXPECT_EQ(Uuid::parse(text), std::nullopt) << text;
    }
}

TEST(UuidTest, SortsAsItsTextDoes) {
    std::vector<std::string> texts{
        "FFFFFFFF-0000-0000-0000-000000000000",
        "00000000-0000-0000-0000-000000000001",
        "A0000000-0000-0000-0000-000000000000",
        "9F000000-0000-0000-0000-000000000000",
        "00000000-0000-0000-0000-00000000000A",
        "00000000-0000-0000-0001-000000000000"};

    std::vector<Uuid> uuids;
    uuids.reserve(texts.size());
    for (const std::string& text : texts) {
        uuids.push_back(Uuid::parse(text).value());
    }
    std::ranges::sort(texts);
    std::ranges::sort(uuids);

    for (std::size_t i = 0; i < texts.size(); ++i) {
        EXPECT_EQ(uuids[i].text(), texts[i]);
    }
}

}  // namespace
}  // namespace tarnvale::support
