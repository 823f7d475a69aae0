// SPDX-License-Identifier: MIT
//
// Our JSON against somebody else's: both have to accept the same texts and to read the same values
// from them, over documents made up and then damaged.

#include "tests/support/JsonOracle.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/JsonReader.h"
#include "tests/support/Mutation.h"

namespace tarnvale::support {

namespace {

struct Sample {
    std::vector<std::string> strings;
    std::vector<std::int64_t> integers;
    std::vector<double> numbers;
    std::vector<std::optional<bool>> flags;
    std::map<std::string, std::string, std::less<>> named;

    bool operator==(const Sample&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Sample> /*type*/) {
    return std::tuple{
        JsonMember{"strings", &Sample::strings},
        JsonMember{"integers", &Sample::integers},
        JsonMember{"numbers", &Sample::numbers},
        JsonMember{"flags", &Sample::flags},
        JsonMember{"named", &Sample::named}};
}

/// Makes up JSON texts in all the ways in which values can be written.
class Author {
public:
    explicit Author(std::mt19937_64& random) : random_(random) {}

    std::string value(int depth) {
        switch (below(depth > 0 ? 9 : 7)) {
            case 0:
                return "null";
            case 1:
                return "true";
            case 2:
                return "false";
            case 3:
            case 4:
                return number();
            case 5:
            case 6:
                return string();
            case 7:
                return list("[", "]", [&] { return value(depth - 1); });
            default:
                return list("{", "}", [&] { return member(string(), value(depth - 1)); });
        }
    }

    std::string sample() {
        std::vector<std::string> members{
            member("\"strings\"", list("[", "]", [&] { return string(); })),
            member("\"integers\"", list("[", "]", [&] { return integer(); })),
            member("\"numbers\"", list("[", "]", [&] { return number(); })),
            member(
                "\"flags\"",
                list(
                    "[",
                    "]",
                    [&] {
                        return pick({"true", "false", "null", "true"});
                    })),
            member("\"named\"", list("{", "}", [&] { return member(string(), string()); })),
            member("\"other\"", value(3))};
        std::shuffle(members.begin(), members.end(), random_);
        std::string text;
        for (const std::string& each : members) {
            text += (text.empty() ? "{" : ",") + each;
        }
        return text + "}" + space();
    }

private:
    std::size_t below(std::size_t bound) { return random_() % bound; }

    std::string pick(const std::vector<std::string>& choices) {
        return choices[below(choices.size())];
    }

    std::string space() { return below(4) > 0 ? "" : pick({" ", "\n", "\t", "\r\n", "  \n  "}); }

    template <class Element>
    std::string list(const std::string& open, const std::string& close, const Element& element) {
        std::string text = open + space();
        for (std::size_t i = 0, count = below(5); i < count; ++i) {
            text += (i > 0 ? "," + space() : "") + element() + space();
        }
        return text + close;
    }

    std::string member(const std::string& key, const std::string& value) {
        return key + space() + ":" + space() + value;
    }

    std::string digits(std::size_t most) {
        std::string text;
        for (std::size_t i = 0, count = 1 + below(most); i < count; ++i) {
            text += static_cast<char>('0' + below(10));
        }
        return text;
    }

    std::string integer() { return pick({"", "-"}) + std::to_string(random_() >> below(64)); }

    std::string number() {
        std::string text = below(3) > 0 ? "" : "-";
        text +=
            below(4) == 0 ? "0" : std::to_string(1 + below(9)) + (below(2) > 0 ? "" : digits(20));
        text += below(3) > 0 ? "" : "." + digits(20);
        text += below(3) > 0 ? "" : pick({"e", "E", "e+", "E-"}) + digits(2);
        return text;
    }

    std::string string() {
        std::string text = "\"";
        for (std::size_t i = 0, count = below(12); i < count; ++i) {
            text += pick(
                {"a",
                 "7",
                 " ",
                 "/",
                 "e",
                 "u",
                 "d83d",
                 "\x7F",
                 "é",
                 "€",
                 "😀",
                 "\xEF\xBF\xBD",
                 "\\n",
                 "\\\"",
                 "\\\\",
                 "\\/",
                 "\\u00e9",
                 "\\u0000",
                 "\\u20AC",
                 "\\ud83d\\ude00",
                 "\\uDBFF\\uDFFF",
                 "plain text",
                 "0123456789"});
        }
        return text + "\"";
    }

    std::mt19937_64& random_;
};

/// The record that the oracle's value stands for. Nothing when it is none.
std::optional<Sample> sample(const test::OracleValue& value) {
    try {
        Sample sample;
        for (const auto& item : test::jsonList(value.at("strings"))) {
            sample.strings.push_back(test::jsonText(item));
        }
        for (const auto& item : test::jsonList(value.at("integers"))) {
            sample.integers.push_back(test::jsonInteger(item));
        }
        for (const auto& item : test::jsonList(value.at("numbers"))) {
            sample.numbers.push_back(test::jsonNumber(item));
        }
        for (const auto& item : test::jsonList(value.at("flags"))) {
            sample.flags.emplace_back();
            if (!item.isNull()) {
                sample.flags.back() = test::jsonFlag(item);
            }
        }
        for (const auto& [key, item] : test::jsonObject(value.at("named"))) {
            sample.named[key] = test::jsonText(item);
        }
        return sample;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

bool ourReaderTakes(const std::string& text) {
    try {
        JsonReader reader(text);
        reader.skip();
        reader.end();
        return true;
    } catch (const JsonError&) {
        return false;
    }
}

std::optional<Sample> ourSample(const std::string& text) {
    try {
        return decodeJson<Sample>(text);
    } catch (const JsonError&) {
        return std::nullopt;
    }
}

class JsonOracleTest : public testing::Test {
protected:
    std::mt19937_64 random{20'01};  // NOLINT(cert-msc51-cpp): every run tries the same
    Author author{random};
};

TEST_F(JsonOracleTest, AcceptsTheSameTexts) {
    int accepted = 0;
    int refused = 0;
    for (int i = 0; i < 8'000; ++i) {
        const std::string text = author.value(4);
        ASSERT_TRUE(ourReaderTakes(text)) << text;

        const std::string damaged = test::mutated(text, random);
        const test::JsonVerdict verdict = test::jsonVerdict(damaged);
        if (!verdict.isTooLargeForIt) {
            ASSERT_EQ(ourReaderTakes(damaged), verdict.ourReaderTakes)
                << testing::PrintToString(damaged);
            ++(verdict.ourReaderTakes ? accepted : refused);
        }
    }
    EXPECT_GT(accepted, 500);
    EXPECT_GT(refused, 500);
}

TEST_F(JsonOracleTest, ReadsTheSameRecords) {
    int read = 0;
    int refused = 0;
    for (int i = 0; i < 1'500; ++i) {
        const std::string text = author.sample();
        for (const std::string& each : {text, test::mutated(text, random)}) {
            const test::JsonVerdict verdict = test::jsonVerdict(each);
            if (verdict.isTooLargeForIt || verdict.hasDuplicateKeys) {
                continue;
            }
            try {
                const auto expected = verdict.ourReaderTakes ? sample(verdict.value) : std::nullopt;
                ASSERT_EQ(ourSample(each), expected) << testing::PrintToString(each);
                ++(expected ? read : refused);
            } catch (const test::CannotTell&) {
                continue;
            }
        }
    }
    EXPECT_GT(read, 300);
    EXPECT_GT(refused, 300);
}

}  // namespace
}  // namespace tarnvale::support
