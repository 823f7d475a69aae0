// SPDX-License-Identifier: MIT

#include "helperctl/Answer.h"

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace tarnvale::helperctl {
namespace {

struct Printed {
    std::string output;
    std::string errors;

    bool operator==(const Printed&) const = default;

    friend std::ostream& operator<<(std::ostream& stream, const Printed& printed) {
        return stream << "output \"" << printed.output << "\", errors \"" << printed.errors << '"';
    }
};

Printed printed(const Answer& answer, Format format) {
    std::ostringstream output;
    std::ostringstream errors;
    print(answer, format, output, errors);
    return {.output = output.str(), .errors = errors.str()};
}

support::Uuid uuid(const char* text) {
    return support::Uuid::parse(text).value();
}

Answer fullPreview() {
    Answer answer;
    answer.summary = "Enforcing 1 network: Lab · 2 rules skipped";
    answer.refused.emplace().push_back(
        {.networkID = uuid("6F0C2A51-8E0B-4C55-9C39-0D5B4C7E6401"),
         .name = "Büro",
         .problem = "the subnet is wrong."});
    answer.skippedRules.emplace().push_back(
        {.networkID = uuid("6F0C2A51-8E0B-4C55-9C39-0D5B4C7E6402"),
         .name = "Lab",
         .rules = {
             {.number = 1, .problem = "its port is wrong."},
             {.number = 3, .problem = "its address is wrong."}}});
    answer.droppedClaims = {"192.168.64.0/24 is claimed."};
    answer.ruleset = "# a ruleset\npass in quick\n\n";
    return answer;
}

TEST(AnswerTest, PrintsNothingOfNothing) {
    EXPECT_EQ(printed({}, Format::text), (Printed{"", ""}));
    EXPECT_EQ(printed({}, Format::json), (Printed{"{\"formatVersion\":1}\n", ""}));
}

TEST(AnswerTest, PrintsEachSingleResultAsALine) {
    struct Case {
        std::optional<std::string> Answer::*member = nullptr;
        const char* before = nullptr;  ///< what the JSON has before the result
        const char* behind = "}\n";
    };
    const std::vector<Case> results{
        {&Answer::version, R"("formatVersion":1,"version")"},
        {&Answer::report, R"("formatVersion":1,"report")"},
        {&Answer::summary, R"("formatVersion":1,"summary")"},
        {&Answer::bsdName, R"("bsdName")", ",\"formatVersion\":1}\n"}};
    for (const auto& result : results) {
        Answer answer;
        answer.*result.member = "one \"two\"";

        EXPECT_EQ(printed(answer, Format::text), (Printed{"one \"two\"\n", ""})) << result.before;
        EXPECT_EQ(
            printed(answer, Format::json),
            (Printed{std::string("{") + result.before + R"(:"one \"two\"")" + result.behind, ""}));
    }
}

TEST(AnswerTest, PrintsAnErrorToTheErrorsButAsJsonToTheOutput) {
    const auto answer = failure("It failed.\nNot enforced:\n• Büro: no.").answer;

    EXPECT_EQ(
        printed(answer, Format::text), (Printed{"", "It failed.\nNot enforced:\n• Büro: no.\n"}));
    EXPECT_EQ(
        printed(answer, Format::json),
        (Printed{
            "{\"error\":\"It failed.\\nNot enforced:\\n• Büro: no.\",\"formatVersion\":1}\n", ""}));
}

TEST(AnswerTest, PrintsAPreviewInParts) {
    EXPECT_EQ(
        printed(fullPreview(), Format::text),
        (Printed{
            "Enforcing 1 network: Lab · 2 rules skipped\n"
            "\n"
            "Not enforced:\n"
            "• Büro: the subnet is wrong.\n"
            "\n"
            "Rules skipped:\n"
            "• Lab\n"
            "  rule 1: its port is wrong.\n"
            "  rule 3: its address is wrong.\n"
            "\n"
            "Left out:\n"
            "• 192.168.64.0/24 is claimed.\n"
            "\n"
            "Ruleset:\n"
            "# a ruleset\n"
            "pass in quick\n"
            "\n",
            ""}));
}

TEST(AnswerTest, PrintsAPreviewAsOneObject) {
    EXPECT_EQ(
        printed(fullPreview(), Format::json),
        (Printed{
            R"({"droppedClaims":["192.168.64.0\/24 is claimed."],"formatVersion":1,)"
            R"("refused":[{"name":"Büro","networkID":"6F0C2A51-8E0B-4C55-9C39-0D5B4C7E6401",)"
            R"("problem":"the subnet is wrong."}],)"
            R"("ruleset":"# a ruleset\npass in quick\n\n",)"
            R"("skippedRules":[{"name":"Lab","networkID":"6F0C2A51-8E0B-4C55-9C39-0D5B4C7E6402",)"
            R"("rules":[{"number":1,"problem":"its port is wrong."},)"
            R"({"number":3,"problem":"its address is wrong."}]}],)"
            R"("summary":"Enforcing 1 network: Lab · 2 rules skipped"})"
            "\n",
            ""}));
}

TEST(AnswerTest, LetsNoNameReachTheTerminalAsMoreThanText) {
    auto answer = failure("No \033[2J\nnor \u202E\u202C.").answer;
    answer.refused.emplace().push_back({.networkID = {}, .name = "\033c", .problem = "\b"});
    answer.skippedRules.emplace().push_back(
        {.networkID = {}, .name = "\033c", .rules = {{.number = 1, .problem = "\a"}}});
    answer.droppedClaims = {"\r"};
    answer.report = "pf is on\033[2J\npass in quick";
    answer.summary = "Enforcing 1 network: \033[2J\nLab";
    answer.ruleset = "# --- \033]0;Lab\a (192.168.64.0/24) ---\npass in quick\n\n";

    EXPECT_EQ(
        printed(answer, Format::text),
        (Printed{
            "pf is on\\u001b[2J\npass in quick\n"
            "Enforcing 1 network: \\u001b[2J\\u000aLab\n"
            "\nNot enforced:\n• \\u001bc: \\u0008\n"
            "\nRules skipped:\n• \\u001bc\n  rule 1: \\u0007\n"
            "\nLeft out:\n• \\u000d\n"
            "\nRuleset:\n"
            "# --- \\u001b]0;Lab\\u0007 (192.168.64.0/24) ---\npass in quick\n\n",
            "No \\u001b[2J\nnor \\u202e\\u202c.\n"}));
}

TEST(AnswerTest, ShowsNoHeadingOverNothing) {
    auto answer = fullPreview();
    answer.refused->clear();
    answer.skippedRules->clear();
    answer.droppedClaims->clear();

    EXPECT_EQ(
        printed(answer, Format::text).output,
        "Enforcing 1 network: Lab · 2 rules skipped\n\nRuleset:\n# a ruleset\npass in quick\n\n");
}

}  // namespace
}  // namespace tarnvale::helperctl
