// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Requirement.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::platform {
namespace {

using testing::Property;
using testing::Throws;
using testing::ThrowsMessage;

/// A program that the maker signed for development.
CodeFacts client() {
    return {
        .identifier = "com.brackwen.tarnvale",
        .chain =
            {{.subjectOU = "K7PD2QM4TZ", .extensions = {"2.5.29.37", "2.5.29.15"}},
             {.subjectOU = std::nullopt, .extensions = {"2.5.29.19"}},
             {.subjectOU = "Root", .extensions = {}}},
        .anchored = true};
}

bool holds(const std::string& requirement, const CodeFacts& code = client()) {
    return Requirement::parse(requirement).holds(code);
}

TEST(RequirementTest, HoldsTheHelpersOwnTexts) {
    const std::string base =
        R"(anchor apple generic and (identifier "com.brackwen.tarnvale" or identifier )"
        R"("com.brackwen.tarnvale.service") and certificate leaf[subject.OU] = "K7PD2QM4TZ")";
    const std::string strict =
        base +
        " and certificate 1[field.1.2.840.113635.100.6.2.6] exists and certificate "
        "leaf[field.1.2.840.113635.100.6.1.13] exists";
    CodeFacts developerID = client();
    developerID.chain[0].extensions.emplace_back("1.2.840.113635.100.6.1.13");
    developerID.chain[1].extensions.emplace_back("1.2.840.113635.100.6.2.6");

    EXPECT_TRUE(holds(base));
    EXPECT_FALSE(holds(strict));
    EXPECT_TRUE(holds(base, developerID));
    EXPECT_TRUE(holds(strict, developerID));
}

TEST(RequirementTest, AsksForEachFact) {
    CodeFacts unanchored = client();
    unanchored.anchored = false;
    EXPECT_TRUE(holds("anchor apple generic"));
    EXPECT_FALSE(holds("anchor apple generic", unanchored));

    EXPECT_TRUE(holds(R"(identifier "com.brackwen.tarnvale")"));
    EXPECT_FALSE(holds(R"(identifier "com.brackwen.Tarnvale")"));
    EXPECT_FALSE(holds(R"(identifier "")"));

    EXPECT_TRUE(holds(R"(certificate leaf[subject.OU] = "K7PD2QM4TZ")"));
    EXPECT_TRUE(holds(R"(certificate 0[subject.OU] = "K7PD2QM4TZ")"));
    EXPECT_TRUE(holds(R"(certificate 2[subject.OU] = "Root")"));
    EXPECT_FALSE(holds(R"(certificate 1[subject.OU] = "K7PD2QM4TZ")"));
    EXPECT_FALSE(holds(R"(certificate 1[subject.OU] = "")")) << "no unit is not an empty one";
    EXPECT_FALSE(holds(R"(certificate 3[subject.OU] = "")")) << "there is no such certificate";

    EXPECT_TRUE(holds("certificate leaf[field.2.5.29.37] exists"));
    EXPECT_TRUE(holds("certificate 1[field.2.5.29.19] exists"));
    EXPECT_FALSE(holds("certificate 1[field.2.5.29.37] exists"));
    EXPECT_FALSE(holds("certificate leaf[field.2.5.29.3] exists"));
    EXPECT_FALSE(holds("certificate leaf[field.2.5.29.37.1] exists"));
    EXPECT_FALSE(holds("certificate 99[field.2.5.29.37] exists"));
}

TEST(RequirementTest, JoinsConditions) {
    const std::string yes = "anchor apple generic";
    const std::string no = R"(identifier "x")";

    EXPECT_TRUE(holds(yes + " and " + yes));
    EXPECT_FALSE(holds(yes + " and " + no));
    EXPECT_TRUE(holds(no + " or " + yes));
    EXPECT_FALSE(holds(no + " or " + no));
    EXPECT_TRUE(holds("not " + no));
    EXPECT_FALSE(holds("!" + yes));
    EXPECT_TRUE(holds("not !" + yes));
    EXPECT_FALSE(holds("!(" + no + " or " + yes + ")"));
}

TEST(RequirementTest, BindsNotClosestAndOrLeast) {
    const std::string yes = "anchor apple generic";
    const std::string no = R"(identifier "x")";

    EXPECT_TRUE(holds(yes + " or " + yes + " and " + no));
    EXPECT_TRUE(holds(no + " and " + no + " or " + yes));
    EXPECT_FALSE(holds("(" + yes + " or " + yes + ") and " + no));
    EXPECT_FALSE(holds("not " + no + " and " + no));
    EXPECT_TRUE(holds("not (" + no + " and " + no + ")"));
    EXPECT_TRUE(holds("not " + yes + " or " + yes));
}

TEST(RequirementTest, TakesAnyWhiteSpaceOrNone) {
    EXPECT_TRUE(holds("\t anchor\napple\r\n generic "));
    EXPECT_TRUE(holds(R"(certificate leaf[subject.OU]="K7PD2QM4TZ"and(anchor apple generic))"));
    EXPECT_TRUE(holds(R"(certificate leaf [ subject.OU ] = "K7PD2QM4TZ")"));
}

TEST(RequirementTest, TakesATextAsItStands) {
    CodeFacts code = client();
    code.identifier = "a b) or (\xC3\xA4";

    EXPECT_TRUE(holds("identifier \"a b) or (\xC3\xA4\"", code));
}

TEST(RequirementTest, SaysWhereATextIsNoRequirement) {
    struct Case {
        const char* text;
        const char* error;
    };
    const std::vector<Case> cases = {
        {"", "Expected a condition at column 1, found the end."},
        {"   ", "Expected a condition at column 4, found the end."},
        {"anchor", R"(Expected "apple" at column 7, found the end.)"},
        {"anchor apple", R"(Expected "generic" at column 13, found the end.)"},
        {"anchor trusted", R"(Expected "apple" at column 8, found "trusted".)"},
        {"Anchor apple generic", R"(Expected a condition at column 1, found "Anchor".)"},
        {"identifier", "Expected a text in quotes at column 11, found the end."},
        {"identifier com.x", R"(Expected a text in quotes at column 12, found "com.x".)"},
        {R"(identifier = "x")", R"(Expected a text in quotes at column 12, found "=".)"},
        {R"(identifier "x)", "The text at column 12 has no end."},
        {R"(identifier "x\"")", "The character at column 14 has no meaning here."},
        {"identifier 'x'", "The character at column 12 has no meaning here."},
        {R"(identifier "x" # why)", "The character at column 16 has no meaning here."},
        {"\xC3\xA4", "The character at column 1 has no meaning here."},
        {"certificate",
         R"(Expected "leaf" or a number of at most two digits at column 12, found the end.)"},
        {R"(certificate root[subject.OU] = "x")",
         R"(Expected "leaf" or a number of at most two digits at column 13, found "root".)"},
        {R"(certificate 01[subject.OU] = "x")",
         R"(Expected "leaf" or a number of at most two digits at column 13, found "01".)"},
        {R"(certificate 100[subject.OU] = "x")",
         R"(Expected "leaf" or a number of at most two digits at column 13, found "100".)"},
        {R"(certificate -1[subject.OU] = "x")", "The character at column 13 has no meaning here."},
        {"certificate leaf", R"(Expected "[" at column 17, found the end.)"},
        {"certificate leaf subject.OU", R"(Expected "[" at column 18, found "subject.OU".)"},
        {R"(certificate leaf[subject.CN] = "x")",
         R"(Expected "subject.OU" or "field." and an object identifier at column 18, found )"
         R"("subject.CN".)"},
        {R"(certificate leaf[subject.OU = "x")", R"(Expected "]" at column 29, found "=".)"},
        {"certificate leaf[subject.OU] exists", R"(Expected "=" at column 30, found "exists".)"},
        {"certificate leaf[subject.OU] = K7",
         R"(Expected a text in quotes at column 32, found "K7".)"},
        {"certificate leaf[field.]",
         R"(Expected "subject.OU" or "field." and an object identifier at column 18, found )"
         R"("field.".)"},
        {"certificate leaf[field.1]",
         R"(Expected "subject.OU" or "field." and an object identifier at column 18, found )"
         R"("field.1".)"},
        {"certificate leaf[field.1..2]",
         R"(Expected "subject.OU" or "field." and an object identifier at column 18, found )"
         R"("field.1..2".)"},
        {"certificate leaf[field.1.02]",
         R"(Expected "subject.OU" or "field." and an object identifier at column 18, found )"
         R"("field.1.02".)"},
        {"certificate leaf[field.1.2.]",
         R"(Expected "subject.OU" or "field." and an object identifier at column 18, found )"
         R"("field.1.2.".)"},
        {"certificate leaf[field.1.x]",
         R"(Expected "subject.OU" or "field." and an object identifier at column 18, found )"
         R"("field.1.x".)"},
        {"certificate leaf[field.1.2]", R"(Expected "exists" at column 28, found the end.)"},
        {R"(certificate leaf[field.1.2] = "x")", R"(Expected "exists" at column 29, found "=".)"},
        {"anchor apple generic and", "Expected a condition at column 25, found the end."},
        {"anchor apple generic or and", R"(Expected a condition at column 25, found "and".)"},
        {"anchor apple generic anchor apple generic",
         R"(Expected "and", "or" or the end at column 22, found "anchor".)"},
        {"anchor apple generic)", R"-(Expected "and", "or" or the end at column 21, found ")".)-"},
        {R"(anchor apple generic "and")",
         R"(Expected "and", "or" or the end at column 22, found "and".)"},
        {"(anchor apple generic", R"-(Expected ")" at column 22, found the end.)-"},
        {"()", R"-(Expected a condition at column 2, found ")".)-"},
        {"not", "Expected a condition at column 4, found the end."},
        {"! and", R"(Expected a condition at column 3, found "and".)"},
    };
    for (const Case& wrong : cases) {
        EXPECT_THAT(
            [&] { Requirement::parse(wrong.text); }, ThrowsMessage<RequirementError>(wrong.error))
            << wrong.text;
    }
}

TEST(RequirementTest, EndsATextAtANul) {
    EXPECT_THAT(
        [] { Requirement::parse(std::string("anchor apple generic\0", 21)); },
        Throws<RequirementError>(Property(&RequirementError::column, 21)));
}

TEST(RequirementTest, NestsAsDeeplyAsItsBound) {
    const auto nested = [](const std::string& open, const std::string& close, int levels) {
        std::string text = "anchor apple generic";
        for (int level = 0; level < levels; ++level) {
            text.insert(0, open).append(close);
        }
        return text;
    };

    EXPECT_TRUE(holds(nested("(", ")", 32)));
    EXPECT_TRUE(holds(nested("!", "", 32)));
    EXPECT_TRUE(holds(nested("not (", ")", 16)));
    EXPECT_THAT(
        [&] { Requirement::parse(nested("(", ")", 33)); },
        ThrowsMessage<RequirementError>("More than 32 levels at column 33."));
    EXPECT_THAT(
        [&] { Requirement::parse(std::string(1'000'000, '!')); },
        ThrowsMessage<RequirementError>("More than 32 levels at column 33."));
}

TEST(RequirementTest, TakesAnyNumberOfConditionsSideBySide) {
    std::string text = "anchor apple generic";
    for (int count = 0; count < 100'000; ++count) {
        text += count % 2 == 0 ? " and (anchor apple generic)" : " or !anchor apple generic";
    }

    EXPECT_TRUE(holds(text));
}

}  // namespace
}  // namespace tarnvale::platform
