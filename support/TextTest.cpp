// SPDX-License-Identifier: MIT

#include "support/Text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/GuardedText.h"

namespace tarnvale::support {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;

/// The code point in UTF-8, by arithmetic alone; surrogates and more are encoded as they come.
std::string encoded(std::uint32_t codePoint) {
    const auto byte = [](std::uint32_t value) { return static_cast<char>(value & 0xFF); };
    const auto tail = [&](unsigned shift) { return byte(0x80 | (codePoint >> shift & 0x3F)); };
    if (codePoint < 0x80) {
        return {byte(codePoint)};
    }
    if (codePoint < 0x800) {
        return {byte(0xC0 | codePoint >> 6), tail(0)};
    }
    if (codePoint < 0x10000) {
        return {byte(0xE0 | codePoint >> 12), tail(6), tail(0)};
    }
    return {byte(0xF0 | codePoint >> 18), tail(12), tail(6), tail(0)};
}

bool isWhitespace(std::uint32_t c) {
    return c == 0x09 || c == 0x20 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200B) ||
           c == 0x202F || c == 0x205F || c == 0x3000;
}

bool isLineBreak(std::uint32_t c) {
    return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

bool isSurrogate(std::uint32_t c) {
    return c >= 0xD800 && c <= 0xDFFF;
}

std::string repeated(std::string_view text, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

TEST(TextTest, TrimsExactlyTheWhitespaceCodePoints) {
    for (std::uint32_t c = 0; c <= 0xFFFF; ++c) {
        const std::string text = encoded(c) + "a" + encoded(c);

        ASSERT_EQ(trimWhitespace(text), isWhitespace(c) ? "a" : text) << "U+" << std::hex << c;
    }
}

TEST(TextTest, TrimsLineEndsOnlyWhenAsked) {
    for (std::uint32_t c = 0; c <= 0xFFFF; ++c) {
        const std::string text = encoded(c) + "a" + encoded(c);

        ASSERT_EQ(trimWhitespaceAndNewlines(text), isWhitespace(c) || isLineBreak(c) ? "a" : text)
            << "U+" << std::hex << c;
    }
}

TEST(TextTest, TrimsBothEndsAndLeavesTheMiddle) {
    EXPECT_EQ(trimWhitespace(" \t\u00A0\u3000a \t b\u200B\u2009 \t"), "a \t b");
    EXPECT_EQ(trimWhitespace(" a\n "), "a\n");
    EXPECT_EQ(trimWhitespace("\n a"), "\n a");
    EXPECT_EQ(trimWhitespaceAndNewlines(" \r\n\u2028a\n\nb\u0085\v\f "), "a\n\nb");
}

TEST(TextTest, TrimsTextOfNothingElseToNothing) {
    EXPECT_EQ(trimWhitespace(""), "");
    EXPECT_EQ(trimWhitespace(" "), "");
    EXPECT_EQ(trimWhitespace("\u2000\u200B\t "), "");
    EXPECT_EQ(trimWhitespaceAndNewlines("\r\n\u2029 "), "");
}

TEST(TextTest, TrimsWholeCodePointsOnly) {
    const std::vector<std::string> untouched = {
        "\u00C2",
        "\u0105",
        "\u00E2",
        "\u2080",
        "\u200C",
        "\u2100",
        "\xA0",
        "\x80",
        "\xC2",
        "\xE2\x80",
        "\x80\x80",
        "\x85",
        "\0"s,
        "\x7F",
        "\uFEFF",
        "\u180E",
    };
    for (const std::string& text : untouched) {
        EXPECT_EQ(trimWhitespaceAndNewlines(text), text);
    }
}

TEST(TextTest, PutsASpaceForEachLineBreak) {
    for (std::uint32_t c = 0; c <= 0xFFFF; ++c) {
        std::string line = "kept:";

        appendOnOneLine(line, "a" + encoded(c) + "b");

        ASSERT_EQ(line, isLineBreak(c) ? "kept:a b" : "kept:a" + encoded(c) + "b")
            << "U+" << std::hex << c;
    }
}

TEST(TextTest, PutsTwoSpacesForCarriageReturnAndLineFeed) {
    std::string line;

    appendOnOneLine(line, "\nLab\r\nand\u2028\u2029Test\u0085");

    EXPECT_EQ(line, " Lab  and  Test ");
}

TEST(TextTest, AppendsTextWithoutLineBreaksAsItIs) {
    std::string line = "# ";

    appendOnOneLine(line, "");
    appendOnOneLine(line, "B\u00FCro \U0001F600\0 \xC2 \xE2\x80"s);

    EXPECT_EQ(line, "# B\u00FCro \U0001F600\0 \xC2 \xE2\x80"s);
}

TEST(TextTest, LowersAsciiLettersOnly) {
    EXPECT_EQ(asciiLower(""), "");
    EXPECT_EQ(asciiLower("@AZ[`az{ ANY 10.0.0.0/8"), "@az[`az{ any 10.0.0.0/8");
    EXPECT_EQ(asciiLower("\u00C4\u212A\u0130"), "\u00C4\u212A\u0130");
}

TEST(TextTest, TakesEveryCodePointButSurrogatesForUtf8) {
    for (std::uint32_t c = 0; c <= 0x110FFF; ++c) {
        ASSERT_EQ(isValidUtf8(encoded(c)), !isSurrogate(c) && c <= 0x10FFFF)
            << "U+" << std::hex << c;
    }
}

TEST(TextTest, FindsAFaultAtEveryPlaceOfALongText) {
    const std::string text = repeated("0123456789 \u00FC\u20AC\U0001F600 ", 4);
    ASSERT_TRUE(isValidUtf8(text));
    ASSERT_TRUE(isValidUtf8(""));

    for (std::size_t i = 0; i <= text.size(); ++i) {
        std::string broken = text;
        broken.insert(i, 1, '\xFF');
        EXPECT_FALSE(isValidUtf8(broken)) << i;
    }
}

TEST(TextTest, ReplacesEachMaximalIllFormedPart) {
    struct Case {
        std::string bytes;
        std::string text;
    };
    const std::vector<Case> cases = {
        {"", ""},
        {"plain", "plain"},
        {"B\u00FCro \U0001F600", "B\u00FCro \U0001F600"},
        {"\0"s, "\0"s},
        {"\uFEFFa", "\uFEFFa"},
        // The examples of the Unicode standard, chapter 3, tables 3-8 to 3-11.
        {"\xC0\xAF\xE0\x80\xBF\xF0\x81\x82\x41", repeated("\uFFFD", 8) + "A"},
        {"\xED\xA0\x80\xED\xBF\xBF\xED\xAF\x41", repeated("\uFFFD", 8) + "A"},
        {"\xF4\x91\x92\x93\xFF\x41\x80\xBF\x42", repeated("\uFFFD", 5) + "A\uFFFD\uFFFD" + "B"},
        {"\xE1\x80\xE2\xF0\x91\x92\xF1\xBF\x41", repeated("\uFFFD", 4) + "A"},
        // Cut short at the end.
        {"a\xC3", "a\uFFFD"},
        {"a\xE2\x82", "a\uFFFD"},
        {"a\xF0\x9F\x98", "a\uFFFD"},
        // Lead bytes that begin nothing, and bytes that continue nothing.
        {"\x80\xC1\xF5\xFF", repeated("\uFFFD", 4)},
        {"\u00FC\x80\u00FC", "\u00FC\uFFFD\u00FC"},
        {"0123456\x80"
         "89abcdef\xE2",
         "0123456\uFFFD"
         "89abcdef\uFFFD"},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(repairedUtf8(each.bytes), each.text);
    }
}

/// The length of the encoding that a lead byte announces.
std::size_t announcedLength(std::uint8_t lead) {
    return lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

/// Whether some character's encoding begins with these bytes.
bool beginsCharacter(const std::string& part) {
    const auto lead = static_cast<std::uint8_t>(part[0]);
    const std::size_t whole = announcedLength(lead);
    std::uint32_t bits = whole == 1 ? lead : lead & (0xFFU >> (whole + 1));
    if ((lead >= 0x80 && lead < 0xC0) || lead >= 0xF8 || part.size() > whole) {
        return false;
    }
    for (std::size_t i = 1; i < part.size(); ++i) {
        const auto next = static_cast<std::uint8_t>(part[i]);
        if ((next & 0xC0U) != 0x80) {
            return false;
        }
        bits = bits << 6 | (next & 0x3FU);
    }
    // The characters that begin so are a range: is one of them encoded in just this length?
    const auto open = static_cast<unsigned>(6 * (whole - part.size()));
    std::uint32_t first = bits << open;
    std::uint32_t last = first + (1U << open) - 1;
    const std::array<std::uint32_t, 5> least = {0, 0, 0x80, 0x800, 0x10000};
    first = std::max(first, least.at(whole));
    last = std::min<std::uint32_t>(last, 0x10FFFF);
    return first <= last && !(isSurrogate(first) && isSurrogate(last));
}

/// What a decoder that has never heard of our table makes of the bytes: at each place the longest
/// beginning of some character's encoding, a character if it is whole, else one replacement.
std::string slowlyRepaired(const std::string& bytes) {
    const auto isCharacter = [](const std::string& part) {
        return part.size() == announcedLength(static_cast<std::uint8_t>(part[0]));
    };
    std::string text;
    for (std::size_t i = 0; i < bytes.size();) {
        std::size_t length = 1;
        const bool begins = beginsCharacter(bytes.substr(i, 1));
        while (begins && i + length < bytes.size() &&
               beginsCharacter(bytes.substr(i, length + 1))) {
            ++length;
        }
        const std::string part = bytes.substr(i, length);
        text += begins && isCharacter(part) ? part : "\uFFFD";
        i += length;
    }
    return text;
}

TEST(TextTest, RepairsAnyBytesAsASlowDecoderDoes) {
    // Bytes at the borders of the ranges, where mistakes would be.
    const std::string alphabet =
        "a\x7F\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5\xFF";
    std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): the same cases in every run
    for (int round = 0; round < 50'000; ++round) {
        std::string bytes;
        for (auto left = random() % 12; left > 0; --left) {
            bytes += alphabet[random() % alphabet.size()];
        }

        const std::string text = repairedUtf8(bytes);

        ASSERT_EQ(text, slowlyRepaired(bytes)) << testing::PrintToString(bytes);
        ASSERT_TRUE(isValidUtf8(text));
        ASSERT_EQ(isValidUtf8(bytes), text == bytes);
    }
}

TEST(TextTest, SplitsAtEverySeparator) {
    EXPECT_THAT(split("", '/'), ElementsAre(""));
    EXPECT_THAT(split("/", '/'), ElementsAre("", ""));
    EXPECT_THAT(split("a", '/'), ElementsAre("a"));
    EXPECT_THAT(split("/a//b/", '/'), ElementsAre("", "a", "", "b", ""));
    EXPECT_THAT(split("a\nb\r\n", '\n'), ElementsAre("a", "b\r", ""));
    EXPECT_THAT(split("\0a\0"s, '\0'), ElementsAre("", "a", ""));
}

TEST(TextTest, MeasuresTheFirstCharacter) {
    EXPECT_EQ(characterLength("ab"), 1U);
    EXPECT_EQ(characterLength("éb"), 2U);
    EXPECT_EQ(characterLength("€b"), 3U);
    EXPECT_EQ(characterLength("😀b"), 4U);
    EXPECT_EQ(characterLength(""), 0U);
    EXPECT_EQ(characterLength("\x80"), 0U);
    EXPECT_EQ(characterLength("\xE2\x82"), 0U);
}

TEST(TextTest, ReadsNothingBehindTheText) {
    test::readEveryBeginning(
        "seven b\u0085\u2028\u00A0\U0001F600\u2029", [](std::string_view text) {
            const std::string whole(text);
            std::string line;
            appendOnOneLine(line, text);

            EXPECT_EQ(repairedUtf8(text), repairedUtf8(whole));
            EXPECT_EQ(isValidUtf8(text), !repairedUtf8(whole).ends_with("\uFFFD"));
            EXPECT_EQ(trimWhitespaceAndNewlines(text), trimWhitespaceAndNewlines(whole));
            EXPECT_EQ(line.find('\n'), std::string::npos);
            for (std::size_t place = 0; place < text.size(); ++place) {
                EXPECT_EQ(
                    characterLength(text.substr(place)),
                    characterLength(std::string_view(whole).substr(place)));
            }
        });
}

}  // namespace
}  // namespace tarnvale::support
