// SPDX-License-Identifier: MIT

#include <algorithm>
#include <bit>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/JsonReader.h"
#include "support/JsonWriter.h"

namespace tarnvale::support {

namespace {

enum class Color : std::uint8_t { red, green, deepBlue };

constexpr const char* rawValue(Color color) {
    switch (color) {
        case Color::red:
            return "red";
        case Color::green:
            return "green";
        case Color::deepBlue:
            break;
    }
    return "deepBlue";
}

constexpr auto jsonCases(std::type_identity<Color> /*type*/) {
    return std::array{Color::red, Color::green, Color::deepBlue};
}

struct Inner {
    std::string name;
    std::optional<std::int64_t> count;

    bool operator==(const Inner&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Inner> /*type*/) {
    return std::tuple{JsonMember{"name", &Inner::name}, JsonMember{"count", &Inner::count}};
}

struct Outer {
    bool flag = false;
    Color color = Color::red;
    double number = 0;
    std::vector<Inner> inners;

    bool operator==(const Outer&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Outer> /*type*/) {
    return std::tuple{
        JsonMember{"flag", &Outer::flag},
        JsonMember{"color", &Outer::color},
        JsonMember{"number", &Outer::number},
        JsonMember{"inners", &Outer::inners}};
}

/// A record that asks for nothing: whatever members an object has, they are passed over.
struct Anything {
    bool operator==(const Anything&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Anything> /*type*/) {
    return std::tuple<>();
}

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::ThrowsMessage;

template <class T>
void expectError(const std::string& json, const std::string& message) {
    EXPECT_THAT([&] { decodeJson<T>(json); }, ThrowsMessage<JsonError>(message)) << json;
}

/// Whether the text is JSON, whatever it says.
bool isJson(const std::string& json) {
    try {
        JsonReader reader(json);
        reader.skip();
        reader.end();
        return true;
    } catch (const JsonError&) {
        return false;
    }
}

std::string nested(std::size_t depth, const std::string& open, const std::string& close) {
    std::string json;
    for (std::size_t i = 0; i < depth; ++i) {
        json += open;
    }
    for (std::size_t i = 0; i < depth; ++i) {
        json += close;
    }
    return json;
}

constexpr const char* outerJson =
    R"({"flag":true,"color":"deepBlue","number":1.5,"inners":[{"name":"a","count":3},{"name":"b"}]})";

Outer outer() {
    return {.flag = true, .color = Color::deepBlue, .number = 1.5, .inners = {{"a", 3}, {"b", {}}}};
}

// Records

TEST(JsonTest, ReadsRecordsInTheOrderOfTheirFields) {
    EXPECT_EQ(decodeJson<Outer>(outerJson), outer());
}

TEST(JsonTest, ReadsMembersInAnyOrder) {
    EXPECT_EQ(
        decodeJson<Outer>(R"({"inners":[{"count":3,"name":"a"},{"name":"b"}],"number":1.5,)"
                          R"("color":"deepBlue","flag":true})"),
        outer());
}

TEST(JsonTest, PassesOverWhiteSpaceBetweenAllTokens) {
    EXPECT_EQ(
        decodeJson<Outer>(" \t\r\n{ \"flag\"\t:\ntrue\r, \"color\" : \"deepBlue\" , \"number\" : "
                          "1.5 , \"inners\" : "
                          "[ { \"name\" : \"a\" , \"count\" : 3 } , { \"name\" : \"b\" } ] } \n"),
        outer());
}

TEST(JsonTest, PassesOverUnknownMembers) {
    EXPECT_EQ(
        decodeJson<Inner>(
            R"({"x":{"name":[1,{"name":"z"},[],{}],"y":null},"name":"a","z":[[],{}, -0.5e+7 ,true,)"
            R"(false,"\ud83d\ude00\n"],"count":3,"":""})"),
        (Inner{"a", 3}));
}

TEST(JsonTest, TakesTheFirstOfMembersWithEqualKeys) {
    EXPECT_EQ(
        decodeJson<Inner>(R"({"name":"first","name":"second","count":1,"name":5,"count":"x"})"),
        (Inner{"first", 1}));
    EXPECT_EQ(
        decodeJson<Inner>(R"({"count":null,"name":"a","count":7})"), (Inner{"a", std::nullopt}));
    EXPECT_THAT(
        (decodeJson<std::map<std::string, std::int64_t, std::less<>>>(R"({"b":1,"a":2,"b":"x"})")),
        ElementsAre(Pair("a", 2), Pair("b", 1)));
}

TEST(JsonTest, ChecksTheValueOfASecondMemberWithAnEqualKey) {
    expectError<Inner>(
        R"({"name":"a","name":tru})", R"(expected true, found "}" at line 1, column 23)");
}

TEST(JsonTest, ComparesKeysAfterTheirEscapes) {
    EXPECT_EQ(decodeJson<Inner>(R"({"n\u0061me":"a"})"), (Inner{"a", {}}));
    EXPECT_EQ(decodeJson<Inner>(R"({"name":"a","n\u0061me":"b"})"), (Inner{"a", {}}));
    expectError<Inner>(
        R"({"Name":"a","name\u0000":"b"})", R"(missing key "name" at the top level)");
}

TEST(JsonTest, TakesNullAndMissingForAnAbsentOptional) {
    EXPECT_EQ(decodeJson<Inner>(R"({"name":"a","count":null})"), (Inner{"a", {}}));
    EXPECT_EQ(decodeJson<Inner>(R"({"name":"a"})"), (Inner{"a", {}}));
    expectError<Inner>(R"({"name":"a","count":"3"})", R"(expected an integer at count, found "3")");
}

TEST(JsonTest, ReadsEmptyArraysAndObjects) {
    EXPECT_THAT(decodeJson<std::vector<Inner>>(" [ ] "), IsEmpty());
    EXPECT_THAT((decodeJson<std::map<std::string, bool, std::less<>>>("{\n}")), IsEmpty());
    EXPECT_EQ(decodeJson<Anything>("{}"), Anything());
}

TEST(JsonTest, ReadsWordsExactly) {
    EXPECT_THAT(
        decodeJson<std::vector<Color>>(R"(["green","r\u0065d"])"),
        ElementsAre(Color::green, Color::red));
    for (const char* const word : {"Green", "gree", "greens", "green ", ""}) {
        expectError<std::vector<Color>>(
            "[\"" + std::string(word) + "\"]",
            R"(expected "red", "green" or "deepBlue" at [0], found ")" + std::string(word) + "\"");
    }
}

TEST(JsonTest, ReadsUuidsExactly) {
    const std::string uuid = "0123ABCD-4567-89EF-FEDC-BA9876543210";
    EXPECT_EQ(decodeJson<Uuid>("\"" + uuid + "\"").text(), uuid);
    EXPECT_EQ(decodeJson<Uuid>("\"\\u0030" + uuid.substr(1) + "\"").text(), uuid);
    expectError<Uuid>(
        "\"" + uuid.substr(1) + "\"",
        "expected a UUID at the top level, found \"" + uuid.substr(1) + "\"");
    expectError<Uuid>("5", "expected a UUID at the top level, found 5");
}

// Errors of shape

TEST(JsonTest, SaysWhatWasExpectedAndFoundAndWhere) {
    for (const auto& [json, message] : std::vector<std::pair<std::string, std::string>>{
             {"null", "expected an object at the top level, found null"},
             {"[]", "expected an object at the top level, found an array"},
             {R"({"flag":1})", "expected true or false at flag, found 1"},
             {R"({"flag":"true"})", "expected true or false at flag, found \"true\""},
             {R"({"flag":null})", "expected true or false at flag, found null"},
             {R"({"color":{"a":[]}})",
              R"(expected "red", "green" or "deepBlue" at color, found an object)"},
             {R"({"number":"1"})", "expected a number at number, found \"1\""},
             {R"({"number":true})", "expected a number at number, found true"},
             {R"({"inners":{}})", "expected an array at inners, found an object"},
             {R"({"inners":[{"name":"a"},5]})", "expected an object at inners[1], found 5"},
             {R"({"x":[1,2],"inners":[{"name":"]},{"},{"y":[{}],"name":false}]})",
              "expected a string at inners[1].name, found false"},
             {R"({"inners":[{"name":"\"\\"},{"name":"b","count":2.5}]})",
              "expected an integer of 64 bits at inners[1].count, found 2.5"},
         }) {
        expectError<Outer>(json, message);
    }
    expectError<std::vector<Outer>>("{}", "expected an array at the top level, found an object");
    expectError<std::map<std::string, std::vector<std::int64_t>, std::less<>>>(
        R"({"a b":[1],"501":[1,null]})", "expected an integer at 501[1], found null");
}

TEST(JsonTest, SaysWhichKeyIsMissingAndWhere) {
    expectError<Outer>("{}", R"(missing key "flag" at the top level)");
    expectError<Outer>(
        R"({"inners":[],"number":1,"flag":true})", R"(missing key "color" at the top level)");
    expectError<std::vector<Outer>>(
        R"([{"inners":[{"name":"a"},{"count":1}]}])", R"(missing key "name" at [0].inners[1])");
    expectError<std::vector<Outer>>(
        std::string("[") + outerJson + R"(,{"inners":[{"name":"a"}]}])",
        R"(missing key "flag" at [1])");
}

TEST(JsonTest, ShortensWhatItFoundAtACharacter) {
    const std::string start = "\"01234567890123456789012345678901234567";
    expectError<bool>(
        start + "\"", "expected true or false at the top level, found " + start + "\"");
    expectError<bool>(
        start + "99\"", "expected true or false at the top level, found " + start + "9…");
    expectError<bool>(
        start + "€\"", "expected true or false at the top level, found " + start + "…");
}

// Errors of syntax

TEST(JsonTest, SaysWhereATextIsNoJson) {
    for (const auto& [json, message] : std::vector<std::pair<std::string, std::string>>{
             {"", "expected a value, found the end at line 1, column 1"},
             {" \n ", "expected a value, found the end at line 2, column 2"},
             {"[", "expected a value, found the end at line 1, column 2"},
             {"[,]", R"(expected a value, found "," at line 1, column 2)"},
             {"[{},]", R"(expected a value, found "]" at line 1, column 5)"},
             {"[{},,{}]", R"(expected a value, found "," at line 1, column 5)"},
             {"[{} {}]", R"(expected "," or "]", found "{" at line 1, column 5)"},
             {"[{}}", R"(expected "," or "]", found "}" at line 1, column 4)"},
             {"[{}", R"(expected "," or "]", found the end at line 1, column 4)"},
             {"[{]", R"(expected a key, found "]" at line 1, column 3)"},
             {"[{a:1}]", R"(expected a key, found "a" at line 1, column 3)"},
             {R"([{"a":1,}])", R"(expected a key, found "}" at line 1, column 9)"},
             {R"([{"a":1 "b":2}])", R"(expected "," or "}", found """ at line 1, column 9)"},
             {R"([{"a":1])", R"(expected "," or "}", found "]" at line 1, column 8)"},
             {R"([{"a" 1}])", R"(expected ":", found "1" at line 1, column 7)"},
             {R"([{"a":}])", R"(expected a value, found "}" at line 1, column 7)"},
             {R"([{"a":'b'}])", R"(expected a value, found "'" at line 1, column 7)"},
             {R"([{"a":nul}])", R"(expected null, found "}" at line 1, column 10)"},
             {R"([{"a":True}])", R"(expected a value, found "T" at line 1, column 7)"},
             {R"([{"a":truefalse}])", R"(expected "," or "}", found "f" at line 1, column 11)"},
             {R"([{"a":01}])", R"(expected "," or "}", found "1" at line 1, column 8)"},
             {R"([{"a":-}])", R"(expected a digit, found "}" at line 1, column 8)"},
             {R"([{"a":1.}])", R"(expected a digit, found "}" at line 1, column 9)"},
             {R"([{"a":1e+}])", R"(expected a digit, found "}" at line 1, column 10)"},
             {R"([{"a":+1}])", R"(expected a value, found "+" at line 1, column 7)"},
             {R"([{"a":"b)", "string without an end at line 1, column 9"},
             {"[{\"a\":\"b\n\"}]", "control character in a string at line 1, column 9"},
             {R"([{"a":"\x"}])", "unknown escape in a string at line 1, column 8"},
             {R"([{"a":"\u12g4"}])",
              "escape without four hexadecimal digits in a string at line 1, column 8"},
             {R"([{"a":"\ud83d"}])", "half a surrogate pair in a string at line 1, column 8"},
             {"[{\"a\":\"\xFF\"}]", "string that is not UTF-8 at line 1, column 8"},
             {"[{}] x", R"(expected the end, found "x" at line 1, column 6)"},
             {"[{}][]", R"(expected the end, found "[" at line 1, column 5)"},
             {std::string("[{}]\0", 5), "expected the end, found byte 0x00 at line 1, column 5"},
             {"[{}]// done", R"(expected the end, found "/" at line 1, column 5)"},
             {"[{},\n {\"€€\":\t\"é\" x}]",
              R"(expected "," or "}", found "x" at line 2, column 13)"},
             {"[\r\n\x0B]", "expected a value, found byte 0x0B at line 2, column 1"},
         }) {
        expectError<std::vector<Anything>>(json, message);
    }
}

TEST(JsonTest, PassesOverAByteOrderMark) {
    EXPECT_EQ(decodeJson<Outer>(std::string("\xEF\xBB\xBF") + outerJson), outer());
    expectError<Anything>("\xEF\xBB\xBF\n{", "expected a key, found the end at line 2, column 2");
    expectError<Anything>(
        "\xEF\xBB\xBF\xEF\xBB\xBF{}", "expected a value, found byte 0xEF at line 1, column 1");
    expectError<Anything>(
        "{}\xEF\xBB\xBF", "expected the end, found byte 0xEF at line 1, column 3");
}

TEST(JsonTest, RefusesOtherEncodings) {
    const std::vector<std::string> texts{
        std::string("\xFF\xFE{\0}\0", 6),
        std::string("\xFE\xFF\0{\0}", 6),
        std::string("{\0}\0", 4),
        std::string("\0{\0}", 4),
        std::string("{\0\0\0}\0\0\0", 8),
        std::string("\0\0\0{\0\0\0}", 8)};
    for (const std::string& text : texts) {
        EXPECT_THROW(decodeJson<Anything>(text), JsonError) << testing::PrintToString(text);
    }
}

TEST(JsonTest, RefusesEveryBeginningOfAText) {
    const std::string json =
        R"( {"flag":true,"x":[1.5e+3,{"y":"\u00e9é"},null,false],"color":"green","number":-1,)"
        R"("inners":[{"name":"a","count":0}]})";
    ASSERT_EQ(decodeJson<Outer>(json).color, Color::green);

    for (std::size_t length = 0; length < json.size(); ++length) {
        EXPECT_THROW(decodeJson<Outer>(json.substr(0, length)), JsonError) << length;
        EXPECT_FALSE(isJson(json.substr(0, length))) << length;
    }
}

TEST(JsonTest, NeverReadsBeyondTheEnd) {
    // A copy of each beginning in memory of exactly its size: the address sanitizer sees it.
    const std::string_view whole = outerJson;
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const std::vector<char> exact(whole.begin(), whole.begin() + std::ptrdiff_t(length));
        EXPECT_THROW(decodeJson<Outer>({exact.data(), exact.size()}), JsonError) << length;
    }
}

// Depth

TEST(JsonTest, Accepts512LevelsAndNotOneMore) {
    const std::string error =
        "more than 512 arrays and objects inside one another at line 1, column ";
    EXPECT_NO_THROW(decodeJson<Anything>(R"({"a":)" + nested(511, "[", "]") + "}"));
    expectError<Anything>(R"({"a":)" + nested(512, "[", "]") + "}", error + "517");
    EXPECT_NO_THROW(
        decodeJson<Anything>(nested(511, R"({"a":)", "}").insert(std::size_t{511} * 5, "{}")));
    expectError<Anything>(
        nested(512, R"({"a":)", "}").insert(std::size_t{512} * 5, "{}"), error + "2561");
    EXPECT_NO_THROW(decodeJson<std::vector<Anything>>(
        R"([{"a":)" + nested(510, "[", "]") + R"(},{"a":)" + nested(510, "[", "]") + "}]"));
    expectError<std::vector<Anything>>(R"([{"a":)" + nested(511, "[", "]") + "}]", error + "517");
}

TEST(JsonTest, SurvivesAHundredThousandBrackets) {
    EXPECT_FALSE(isJson(std::string(100'000, '[')));
    EXPECT_FALSE(isJson(nested(100'000, "[", "]")));
    EXPECT_FALSE(isJson(nested(100'000, R"({"a":)", "}")));
    EXPECT_THROW(decodeJson<std::vector<Anything>>(std::string(100'000, '[')), JsonError);
}

TEST(JsonTest, CountsOnlyOpenLevels) {
    std::string json = "[";
    for (int i = 0; i < 2'000; ++i) {
        json += "[{},[[]]],";
    }
    EXPECT_TRUE(isJson(json + "0]"));
}

// Strings

TEST(JsonTest, DecodesEscapes) {
    EXPECT_EQ(
        decodeJson<std::string>(R"("\"\\\/\b\f\n\r\t\u0041\u00e9\u20AC\ud83d\uDE00\uffff")"),
        "\"\\/\b\f\n\r\tAé€😀\xEF\xBF\xBF");
    EXPECT_EQ(decodeJson<std::string>(R"("a\u0000b")"), std::string("a\0b", 3));
    EXPECT_EQ(decodeJson<std::string>(R"("before\tbetween é\tafter")"), "before\tbetween é\tafter");
}

TEST(JsonTest, TakesEveryOtherCharacterAsItIs) {
    const std::string text =
        "\x7F ~!#[]{}:,/'\xC2\x80 \xDF\xBF \xE0\xA0\x80 \xED\x9F\xBF \xEE\x80\x80 \xEF\xBF\xBF "
        "\xF0\x90\x80\x80 \xF4\x8F\xBF\xBF \xEF\xBB\xBF \xE2\x80\xA8";
    EXPECT_EQ(decodeJson<std::string>("\"" + text + "\""), text);
}

TEST(JsonTest, RefusesIllFormedUtf8) {
    for (const std::string& bytes : std::vector<std::string>{
             "\x80",
             "\xBF",
             "\xC0\x80",
             "\xC1\xBF",
             "\xC2",
             "\xC2 ",
             "\xE0\x80\x80",
             "\xE0\x9F\xBF",
             "\xE2\x82",
             "\xE2\x82 ",
             "\xED\xA0\x80",
             "\xED\xBF\xBF",
             "\xF0\x80\x80\x80",
             "\xF0\x8F\xBF\xBF",
             "\xF0\x9F\x98",
             "\xF0\x9F\x98 ",
             "\xF4\x90\x80\x80",
             "\xF5\x80\x80\x80",
             "\xF8\x88\x80\x80\x80",
             "\xFE",
             "\xFF"}) {
        for (const std::string before : {"", "12345678", "é", "1234567"}) {
            std::string json = "\"";
            json.append(before).append(bytes).append("\"");
            EXPECT_THROW(decodeJson<std::string>(json), JsonError) << testing::PrintToString(json);
            EXPECT_FALSE(isJson(json)) << testing::PrintToString(json);
            EXPECT_THROW(decodeJson<Anything>("{" + json + ":1}"), JsonError);
        }
    }
}

TEST(JsonTest, RefusesControlCharactersEverywhereInAString) {
    for (char c = 0; c < ' '; ++c) {
        for (std::size_t place = 0; place < 20; ++place) {
            std::string text(20, 'x');
            text[place] = c;
            EXPECT_FALSE(isJson("\"" + text + "\"")) << int{c} << " at " << place;
        }
    }
}

TEST(JsonTest, RefusesBadEscapes) {
    for (const char* const text :
         {R"("\a")",
          R"("\'")",
          R"("\U0041")",
          R"("\u")",
          R"("\u004")",
          R"("\u004g")",
          R"("\u-041")",
          R"("\u+041")",
          R"("\u 041")",
          R"("\u0x41")",
          R"("\)",
          R"("\u00)",
          R"("\")",
          R"("\ud800")",
          R"("\udbff")",
          R"("\udc00")",
          R"("\udfff")",
          R"("\ud800x")",
          R"("\ud800\n")",
          R"("\ud800\u0041")",
          R"("\ud800\ud800")",
          R"("\udc00\ud800")",
          R"("\ud800\u")",
          R"("\ud800\)",
          R"("\ud800\udc0")"}) {
        EXPECT_THROW(decodeJson<std::string>(text), JsonError) << text;
        EXPECT_FALSE(isJson(text)) << text;
    }
}

// Numbers

TEST(JsonTest, ReadsIntegersInEveryForm) {
    for (const auto& [json, value] : std::vector<std::pair<std::string, std::int64_t>>{
             {"0", 0},
             {"-0", 0},
             {"-0.0e5", 0},
             {"0e99999999999999999999", 0},
             {"5", 5},
             {"5.0", 5},
             {"5.000000000000000000000000000000", 5},
             {"5e0", 5},
             {"1e3", 1000},
             {"1E+3", 1000},
             {"50e-1", 5},
             {"0.005e3", 5},
             {"-12.50e1", -125},
             {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
             {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
             {"9.223372036854775807e18", std::numeric_limits<std::int64_t>::max()},
             {"922337203685477580700e-2", std::numeric_limits<std::int64_t>::max()},
             {"1000000000000000000", 1'000'000'000'000'000'000},
             {"0." + std::string(5'000, '0') + "7e5001", 7},
             {"7" + std::string(5'000, '0') + "e-5000", 7}}) {
        EXPECT_EQ(decodeJson<std::int64_t>(json), value) << json.substr(0, 40);
    }
}

TEST(JsonTest, NeverRoundsOrNarrowsAnInteger) {
    for (const char* const json :
         {"5.5",
          "0.1",
          "5e-1",
          "9223372036854775808",
          "-9223372036854775809",
          "9223372036854775807.5",
          "18446744073709551616",
          "18446744073709551621",
          "99999999999999999999",
          "1e19",
          "1e400",
          "1e99999999999999999999",
          "1e-99999999999999999999"}) {
        expectError<std::int64_t>(
            json, "expected an integer of 64 bits at the top level, found " + std::string(json));
    }
    expectError<std::int64_t>("true", "expected an integer at the top level, found true");
    expectError<std::int64_t>("\"5\"", "expected an integer at the top level, found \"5\"");
}

TEST(JsonTest, ReadsTheNearestDouble) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const auto& [json, value] : std::vector<std::pair<std::string, double>>{
             {"0", 0.0},
             {"1.5", 1.5},
             {"-63114076800", -63114076800.0},
             {"763636013.25", 763636013.25},
             {"0.1", 0.1},
             {"1e22", 1e22},
             {"9007199254740993", 9007199254740992.0},
             {"9007199254740993.0000000000000000000000000000000000001", 9007199254740994.0},
             {"1.7976931348623157e308", std::numeric_limits<double>::max()},
             {"1.7976931348623158079e308", std::numeric_limits<double>::max()},
             {"2.2250738585072011e-308", std::nextafter(std::numeric_limits<double>::min(), 0.0)},
             {"5e-324", std::numeric_limits<double>::denorm_min()},
             {"2.5e-324", std::numeric_limits<double>::denorm_min()},
             {"0e999999999", 0.0},
             {"0." + std::string(400, '0') + "1e401", 1.0},
             {"1" + std::string(400, '0') + "e-400", 1.0},
             {"1.00000000000000011102230246251565404236316680908203125", 1.0},
             {"1.00000000000000011102230246251565404236316680908203126",
              std::nextafter(1.0, infinity)}}) {
        EXPECT_EQ(decodeJson<double>(json), value) << json.substr(0, 60);
    }
    EXPECT_TRUE(std::signbit(decodeJson<double>("-0.0")));
}

TEST(JsonTest, RefusesDoublesThatOverflowOrVanish) {
    for (const char* const json :
         {"1e309",
          "-1e309",
          "1.7976931348623159e308",
          "1e999999999999",
          "2e-324",
          "-1e-400",
          "1e-99999999999"}) {
        expectError<double>(
            json,
            "expected a number in the range of a double at the top level, found " +
                std::string(json));
    }
}

TEST(JsonTest, TakesNumbersOfTheGrammarOnly) {
    for (const char* const json :
         {"0", "-0", "10", "0.0", "-0.50", "1e1", "1E1", "1e+1", "1e-1", "1.5e007", "1e999"}) {
        EXPECT_TRUE(isJson(json)) << json;
    }
    for (const char* const json :
         {"+1",  "01",    "-01", "00",   "1.",    ".5",    "-.5",  "1.e1",     "1e",
          "1e+", "1e1.5", "--1", "0x10", "1_000", "1,000", "NaN",  "Infinity", "-Infinity",
          "nan", "inf",   "1f",  "1 2",  "-",     "e1",    "1e 1", "٣"}) {
        EXPECT_FALSE(isJson(json)) << json;
        EXPECT_THROW(decodeJson<double>(json), JsonError) << json;
        EXPECT_THROW(decodeJson<std::int64_t>(json), JsonError) << json;
    }
}

TEST(JsonTest, ReadsAndWritesNumbersAlikeInEveryLocale) {
    std::ofstream("/tmp/comma.src") << "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\n"
                                       "grouping 3;3\nEND LC_NUMERIC\n";
    // It warns, and exits accordingly, because the other categories are missing.
    const char* const command =
        "localedef -c -i /tmp/comma.src -f ANSI_X3.4-1968 /tmp/comma 2> /dev/null";
    std::ignore = std::system(command);  // NOLINT(cert-env33-c): always the same, in a private root
    ASSERT_EQ(setenv("LOCPATH", "/tmp", 1), 0);
    if (std::setlocale(LC_NUMERIC, "comma") == nullptr) {
        GTEST_SKIP() << "localedef can't make a locale here (Debian's locales has its sources)";
    }
    ASSERT_EQ(std::strtod("1,5", nullptr), 1.5);

    EXPECT_EQ(decodeJson<double>("-1234567.5e-1"), -123456.75);
    EXPECT_EQ(encodeJson(-1234567.75, JsonForm::compact), "-1234567.75");
    EXPECT_EQ(encodeJson(std::int64_t{1234567}, JsonForm::compact), "1234567");
    EXPECT_FALSE(isJson("1,5"));

    std::setlocale(LC_NUMERIC, "C");
}

// Writing

TEST(JsonTest, WritesKeysInOrderAndNothingBetweenTokensInTheCompactForm) {
    EXPECT_EQ(
        encodeJson(outer(), JsonForm::compact),
        R"({"color":"deepBlue","flag":true,"inners":[{"count":3,"name":"a"},{"name":"b"}],)"
        R"("number":1.5})");
    EXPECT_EQ(
        encodeJson(Outer(), JsonForm::compact),
        R"({"color":"red","flag":false,"inners":[],"number":0})");
    EXPECT_EQ(encodeJson(Anything(), JsonForm::compact), "{}");
    EXPECT_EQ(
        encodeJson(
            std::map<std::string, std::vector<std::string>, std::less<>>{
                {"501", {}}, {"1000", {"a", "b"}}, {"legacy", {}}},
            JsonForm::compact),
        R"({"1000":["a","b"],"501":[],"legacy":[]})");
}

TEST(JsonTest, WritesOneMemberOrElementALineInThePrettyForm) {
    EXPECT_EQ(
        encodeJson(std::vector<Outer>{outer(), {}}, JsonForm::pretty),
        R"([
  {
    "color" : "deepBlue",
    "flag" : true,
    "inners" : [
      {
        "count" : 3,
        "name" : "a"
      },
      {
        "name" : "b"
      }
    ],
    "number" : 1.5
  },
  {
    "color" : "red",
    "flag" : false,
    "inners" : [

    ],
    "number" : 0
  }
])");
    EXPECT_EQ(encodeJson(std::vector<Inner>(), JsonForm::pretty), "[\n\n]");
    EXPECT_EQ(encodeJson(Anything(), JsonForm::pretty), "{\n\n}");
    EXPECT_EQ(encodeJson(std::vector<Anything>(1), JsonForm::pretty), "[\n  {\n\n  }\n]");
    EXPECT_EQ(encodeJson(true, JsonForm::pretty), "true");
}

TEST(JsonTest, HandsOverALongTextInPieces) {
    const std::vector<std::string> values(300'000, "fifteen letters");
    for (const JsonForm form : {JsonForm::compact, JsonForm::pretty}) {
        std::string text;
        std::size_t longest = 0;
        encodeJson(values, form, [&](std::string_view piece) {
            longest = std::max(longest, piece.size());
            text += piece;
        });

        EXPECT_TRUE(text == encodeJson(values, form));
        EXPECT_LT(longest, text.size() / 3);
    }
    std::string text;
    encodeJson(true, JsonForm::compact, [&text](std::string_view piece) { text += piece; });
    EXPECT_EQ(text, "true");
}

TEST(JsonTest, WritesAbsentOptionalsAsNullWhereThereIsNoKeyToLeaveOut) {
    EXPECT_EQ(
        encodeJson(std::vector<std::optional<std::string>>{"a", {}}, JsonForm::compact),
        R"(["a",null])");
}

TEST(JsonTest, EscapesWhatHasToBeAndSlashes) {
    const auto written = [](const std::string& text) {
        return encodeJson(text, JsonForm::compact);
    };
    EXPECT_EQ(written("a/b\"c\\d//"), R"("a\/b\"c\\d\/\/")");
    EXPECT_EQ(written("\b\f\n\r\t"), R"("\b\f\n\r\t")");
    EXPECT_EQ(
        written(std::string("\0\x01\x07\x0B\x0E\x1A\x1F", 7)),
        R"("\u0000\u0001\u0007\u000b\u000e\u001a\u001f")");
    EXPECT_EQ(written("\x7F é€😀 \xE2\x80\xA8"), "\"\x7F é€😀 \xE2\x80\xA8\"");
    EXPECT_EQ(written(""), "\"\"");
}

TEST(JsonTest, ReadsEveryStringBackThatItWrites) {
    std::string text;
    for (int round = 0; round < 3; ++round) {
        for (char c = 0; c < 0x7F; ++c) {
            text += c;
            text += round == 1 ? "é" : round == 2 ? "😀€" : "";
        }
        EXPECT_EQ(decodeJson<std::string>(encodeJson(text, JsonForm::compact)), text);
    }
}

TEST(JsonTest, RefusesToWriteWhatIsNotUtf8) {
    for (const char* const text : {"\x80", "abc\xE2\x82", "\xED\xA0\x80", "\xC0\xAF"}) {
        EXPECT_THAT(
            [&] { encodeJson(std::string(text), JsonForm::compact); },
            ThrowsMessage<JsonError>("JSON has no form for a string that is not UTF-8"));
    }
}

TEST(JsonTest, WritesIntegersInDecimal) {
    const auto written = [](std::int64_t value) { return encodeJson(value, JsonForm::compact); };
    EXPECT_EQ(written(0), "0");
    EXPECT_EQ(written(std::numeric_limits<std::int64_t>::max()), "9223372036854775807");
    EXPECT_EQ(written(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
}

TEST(JsonTest, WritesTheFewestDecimalsThatReadBackEqual) {
    for (const auto& [value, text] : std::vector<std::pair<double, std::string>>{
             {0.0, "0"},
             {-0.0, "-0"},
             {1.0, "1"},
             {-63114076800.0, "-63114076800"},
             {763636013.25, "763636013.25"},
             {0.1, "0.1"},
             {0.30000000000000004, "0.30000000000000004"},
             {763636013.253487, "763636013.253487"},
             {763636013.2534871, "763636013.2534871"},
             {1e22, "10000000000000000000000"},
             {123456789012345680.0, "123456789012345680"},
             {0.0001, "0.0001"},
             {1e-7, "0.0000001"},
             {-2.5e-9, "-0.0000000025"},
             {std::numeric_limits<double>::denorm_min(), "0." + std::string(323, '0') + "5"}}) {
        EXPECT_EQ(encodeJson(value, JsonForm::compact), text);
        EXPECT_EQ(decodeJson<double>(text), value);
    }
    constexpr double max = std::numeric_limits<double>::max();
    const std::string text = encodeJson(max, JsonForm::compact);
    EXPECT_EQ(text.size(), 309U);
    EXPECT_EQ(decodeJson<double>(text), max);
}

TEST(JsonTest, ReadsEveryDoubleBackThatItWrites) {
    std::mt19937_64 random(1);  // NOLINT(cert-msc51-cpp): every run tries the same
    for (int i = 0; i < 2'000; ++i) {
        const auto bits = random();
        const auto wild = std::bit_cast<double>(bits);
        const auto date = static_cast<double>(bits >> 11) / 1e7 - 4e8;
        for (const double value : {wild, date}) {
            if (std::isfinite(value) && (value == date || std::abs(value) > 1e-30)) {
                EXPECT_EQ(decodeJson<double>(encodeJson(value, JsonForm::compact)), value);
            }
        }
    }
}

TEST(JsonTest, RefusesToWriteWhatIsNoNumber) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double value : {infinity, -infinity, std::nan("")}) {
        EXPECT_THAT(
            [&] { encodeJson(value, JsonForm::pretty); },
            ThrowsMessage<JsonError>("JSON has no form for a number that is not finite"));
    }
}

TEST(JsonTest, WritesUuidsAndDates) {
    EXPECT_EQ(
        encodeJson(Uuid{{0xAB}}, JsonForm::compact), "\"AB000000-0000-0000-0000-000000000000\"");
    EXPECT_EQ(encodeJson(ReferenceDate{1.5}, JsonForm::compact), "1.5");
    EXPECT_EQ(decodeJson<ReferenceDate>("1.5"), ReferenceDate{1.5});
}

}  // namespace
}  // namespace tarnvale::support
