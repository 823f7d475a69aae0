// SPDX-License-Identifier: MIT

#include "support/JsonPlaces.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::support {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const char* const document =
    "[\n"
    "  {\"a\": {}, \"naïve\": [1, [ ], \"]},\\\"\"],\n"
    "   \"b\": true },\n"
    "  -2.5e1\n"
    "]\n";

std::vector<std::pair<std::string, std::string>> valuesOf(std::string_view json) {
    std::vector<std::pair<std::string, std::string>> values;
    for (JsonWalk walk(json); walk.next();) {
        const auto place = walk.place();
        values.emplace_back(
            walk.path(), std::to_string(place.line) + ":" + std::to_string(place.column));
    }
    return values;
}

TEST(JsonPlacesTest, WalksOverEveryValue) {
    EXPECT_THAT(
        valuesOf(document),
        ElementsAre(
            Pair("", "1:1"),
            Pair("[0]", "2:3"),
            Pair("[0].a", "2:9"),
            Pair("[0].naïve", "2:22"),
            Pair("[0].naïve[0]", "2:23"),
            Pair("[0].naïve[1]", "2:26"),
            Pair("[0].naïve[2]", "2:31"),
            Pair("[0].b", "3:9"),
            Pair("[1]", "4:3")));
    EXPECT_THAT(valuesOf("\"a\""), ElementsAre(Pair("", "1:1")));
    EXPECT_THAT(valuesOf(" \r\n null"), ElementsAre(Pair("", "2:2")));
    EXPECT_THAT(valuesOf("{}"), ElementsAre(Pair("", "1:1")));
    EXPECT_THAT(valuesOf(""), IsEmpty());
}

TEST(JsonPlacesTest, CountsNoByteOrderMark) {
    EXPECT_THAT(valuesOf("\xEF\xBB\xBF[1]"), ElementsAre(Pair("", "1:1"), Pair("[0]", "1:2")));
}

TEST(JsonPlacesTest, NamesKeysByWhatTheyMean) {
    EXPECT_THAT(
        valuesOf(R"({"n\u0061me": {"\\": 1}})"),
        ElementsAre(Pair("", "1:1"), Pair("name", "1:15"), Pair("name.\\", "1:22")));
}

TEST(JsonPlacesTest, FindsValuesByTheirPaths) {
    const std::vector<std::string> paths{"[1]", "[0].naïve[2]", "[2]", "[0].a.c", "", "[1]"};

    EXPECT_THAT(
        findJson(document, paths),
        ElementsAre(
            JsonPlace{.line = 4, .column = 3},
            JsonPlace{.line = 2, .column = 31},
            std::nullopt,
            std::nullopt,
            JsonPlace{.line = 1, .column = 1},
            JsonPlace{.line = 4, .column = 3}));
}

TEST(JsonPlacesTest, MakesNoPathThatIsLongerThanAsked) {
    const std::string json = "{\"" + std::string(100, 'k') + R"(": [1], "\u006b": 2})";
    JsonWalk walk(json);
    std::vector<std::optional<std::string>> paths;
    while (walk.next()) {
        paths.push_back(walk.pathUpTo(1));
    }

    EXPECT_THAT(paths, ElementsAre("", std::nullopt, std::nullopt, "k"));
}

TEST(JsonPlacesTest, FindsTheFirstOfEqualKeys) {
    EXPECT_THAT(
        findJson(R"({"a":1,"a":2})", std::vector<std::string>{"a"}),
        ElementsAre(JsonPlace{.line = 1, .column = 6}));
}

TEST(JsonPlacesTest, SaysWhereATextEnds) {
    EXPECT_EQ(endOf(""), (JsonPlace{.line = 1, .column = 1}));
    EXPECT_EQ(endOf("aä€"), (JsonPlace{.line = 1, .column = 4}));
    EXPECT_EQ(endOf("a\n\n b"), (JsonPlace{.line = 3, .column = 3}));
    EXPECT_EQ(endOf("a\n"), (JsonPlace{.line = 2, .column = 1}));
}

}  // namespace

}  // namespace tarnvale::support
