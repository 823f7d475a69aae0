// SPDX-License-Identifier: MIT

#include "support/JsonProblems.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/GuardedText.h"
#include "tests/support/Mutation.h"

namespace tarnvale::support {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

enum class Proto : std::uint8_t { any, tcp };

constexpr const char* rawValue(Proto proto) {
    return proto == Proto::any ? "any" : "tcp";
}

constexpr auto jsonCases(std::type_identity<Proto> /*type*/) {
    return std::array{Proto::any, Proto::tcp};
}

struct Rule {
    bool enabled = false;
    Proto proto = Proto::any;
    std::optional<std::string> ports;

    bool operator==(const Rule&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Rule> /*type*/) {
    return std::tuple{
        JsonMember{"enabled", &Rule::enabled},
        JsonMember{"proto", &Rule::proto},
        JsonMember{"ports", &Rule::ports}};
}

struct Policy {
    Uuid id;
    std::int64_t number = 0;
    double share = 0;
    std::vector<Rule> rules;
    std::map<std::string, Rule, std::less<>> named;

    bool operator==(const Policy&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Policy> /*type*/) {
    return std::tuple{
        JsonMember{"id", &Policy::id},
        JsonMember{"number", &Policy::number},
        JsonMember{"share", &Policy::share},
        JsonMember{"rules", &Policy::rules},
        JsonMember{"named", &Policy::named}};
}

const char* const sound =
    R"({"id": "0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F", "number": 7, "share": 0.5,
  "rules": [{"enabled": true, "proto": "tcp", "ports": null}, {"proto": "any", "enabled": false}],
  "named": {"a": {"enabled": true, "proto": "t\u0063p"}}})";

/// Each problem as a line: its place, its path and what it is.
template <class T = Policy>
std::vector<std::string> problemsOf(std::string_view json) {
    T value{};
    std::vector<std::string> lines;
    for (const auto& problem : jsonProblems(json, value)) {
        lines.push_back(
            std::to_string(problem.place.line) + ":" + std::to_string(problem.place.column) + " " +
            problem.path + ": " + problem.problem + (problem.isIgnored ? " (harmless)" : ""));
    }
    return lines;
}

TEST(JsonProblemsTest, FindsNothingInASoundText) {
    Policy policy;

    EXPECT_THAT(jsonProblems(sound, policy), IsEmpty());

    EXPECT_EQ(policy, decodeJson<Policy>(sound));
}

TEST(JsonProblemsTest, FindsEveryProblemAtOnce) {
    EXPECT_THAT(
        problemsOf(R"({"id": 5, "number": "x",
  "rules": [
    {"enabled": 1, "proto": "TCP", "ports": [80]},
    7,
    {"proto": {"tcp": true}, "port": "80", "enabled": true}],
  "named": [],
  "number": 7})"),
        ElementsAre(
            "1:1 : missing key \"share\"",
            "1:8 id: expected a UUID, found 5",
            "1:21 number: expected an integer, found \"x\"",
            "3:17 rules[0].enabled: expected true or false, found 1",
            "3:29 rules[0].proto: \"TCP\" is not one of any, tcp",
            "3:45 rules[0].ports: expected a string, found an array",
            "4:5 rules[1]: expected an object, found 7",
            "5:15 rules[2].proto: expected \"any\" or \"tcp\", found an object",
            "5:38 rules[2].port: unknown key, ignored (harmless)",
            "6:12 named: expected an object, found an array",
            "7:13 number: repeated key, ignored: the first one counts (harmless)"));
}

TEST(JsonProblemsTest, ReadsWhatCanBeRead) {
    std::vector<Rule> rules;

    jsonProblems(
        R"([{"enabled": true, "proto": "udp", "ports": "80"}, 1, {"enabled": true}])", rules);

    ASSERT_EQ(rules.size(), 3U);
    EXPECT_EQ(rules[0], (Rule{.enabled = true, .proto = Proto::any, .ports = "80"}));
    EXPECT_EQ(rules[2].enabled, true);
}

TEST(JsonProblemsTest, FindsWhatPrecedesAnErrorOfSyntax) {
    EXPECT_THAT(
        problemsOf("{\"id\": 5,\n \"number\": 1,,}"),
        ElementsAre("1:8 id: expected a UUID, found 5", "2:14 : expected a key, found \",\""));
    EXPECT_THAT(problemsOf(""), ElementsAre("1:1 : expected a value, found the end"));
    EXPECT_THAT(
        problemsOf("\xEF\xBB\xBF\xEF\xBB\xBF"),
        ElementsAre("1:1 : expected a value, found byte 0xEF"));
    EXPECT_THAT(
        problemsOf("[] x"),
        ElementsAre(
            "1:1 : expected an object, found an array", "1:4 : expected the end, found \"x\""));
}

// A text can end anywhere, also where a value would have to begin.
TEST(JsonProblemsTest, ReadsNothingBehindTheText) {
    const std::string_view unsound =
        R"({"id": "\u0030D9A4C11", "number": 1e, "rules": [{"proto": "\ud83d\ude00", "enabled": "x",
  "proto": [{"a": tru}]}], "share": -1.5e+7, "named": {"a": nul, "b": "é"}})";
    test::GuardedText guard(1024);
    for (const std::string_view whole : {std::string_view(sound), unsound}) {
        for (std::size_t length = 0; length < whole.size(); ++length) {
            const auto text = guard.hold(whole.substr(0, length));
            Policy policy;

            EXPECT_THAT(jsonProblems(text, policy), Not(IsEmpty())) << text;
            EXPECT_THROW(decodeJson<Policy>(text), JsonError) << text;
        }
    }
}

TEST(JsonProblemsTest, AgreesWithTheReaderThatStopsAtTheFirst) {
    std::mt19937_64 random(1);  // NOLINT(cert-msc51-cpp): every run tries the same
    int sounds = 0;
    int refusals = 0;
    test::GuardedText guard(4096);
    for (int i = 0; i < 20'000; ++i) {
        const auto text = guard.hold(test::mutated(sound, random));
        Policy policy;

        const auto problems = jsonProblems(text, policy);

        std::vector<std::string> sentences;
        for (const auto& problem : problems) {
            if (!problem.isIgnored) {
                sentences.push_back(problem.problem);
            }
        }
        try {
            EXPECT_EQ(decodeJson<Policy>(text), policy) << text;
            EXPECT_THAT(sentences, IsEmpty()) << text;
            ++sounds;
        } catch (const JsonSyntaxError& error) {
            EXPECT_EQ(
                error.what(),
                sentences.back() + " at line " + std::to_string(problems.back().place.line) +
                    ", column " + std::to_string(problems.back().place.column))
                << text;
            ++refusals;
        } catch (const JsonError&) {
            EXPECT_FALSE(sentences.empty()) << text;
            ++refusals;
        }
    }
    EXPECT_GT(sounds, 300);
    EXPECT_GT(refusals, 1'000);
}

}  // namespace

}  // namespace tarnvale::support
