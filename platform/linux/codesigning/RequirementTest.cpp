// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Requirement.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/AdmissionRequirements.h"
#include "tests/support/GuardedText.h"

namespace tarnvale::platform {
namespace {

/// A program that its maker signed for development.
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
    return Requirement::parse(requirement).value().holds(code);
}

bool isRequirement(const std::string& text) {
    return Requirement::parse(text).has_value();
}

TEST(RequirementTest, HoldsTheHelpersOwnTexts) {
    CodeFacts developerID = client();
    developerID.chain[0].extensions.emplace_back("1.2.840.113635.100.6.1.13");
    developerID.chain[1].extensions.emplace_back("1.2.840.113635.100.6.2.6");

    EXPECT_TRUE(holds(test::baseRequirement));
    EXPECT_FALSE(holds(test::strictRequirement));
    EXPECT_TRUE(holds(test::baseRequirement, developerID));
    EXPECT_TRUE(holds(test::strictRequirement, developerID));
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

TEST(RequirementTest, RefusesATextThatIsNotARequirement) {
    const std::vector<std::string> texts = {
        "",
        "   ",
        "anchor",
        "anchor apple",
        "anchor trusted",
        "Anchor apple generic",
        "identifier",
        "identifier com.x",
        R"(identifier = "x")",
        R"(identifier "x)",
        R"(identifier "x\"")",
        R"(identifier "x\)",
        "identifier 'x'",
        R"(identifier "x" # why)",
        "\xC3\xA4",
        "certificate",
        R"(certificate root[subject.OU] = "x")",
        R"(certificate 01[subject.OU] = "x")",
        R"(certificate 100[subject.OU] = "x")",
        R"(certificate -1[subject.OU] = "x")",
        "certificate leaf",
        "certificate leaf subject.OU",
        R"(certificate leaf[subject.CN] = "x")",
        R"(certificate leaf[subject.OU = "x")",
        "certificate leaf[subject.OU] exists",
        "certificate leaf[subject.OU] = K7",
        "certificate leaf[field.]",
        "certificate leaf[field.1]",
        "certificate leaf[field.1..2]",
        "certificate leaf[field.1.02]",
        "certificate leaf[field.1.2.]",
        "certificate leaf[field.1.x]",
        "certificate leaf[field.1.2]",
        R"(certificate leaf[field.1.2] = "x")",
        "anchor apple generic and",
        "anchor apple generic or and",
        "anchor apple generic anchor apple generic",
        "anchor apple generic)",
        R"(anchor apple generic "and")",
        "(anchor apple generic",
        "()",
        "not",
        "! and",
    };
    for (const auto& text : texts) {
        EXPECT_FALSE(isRequirement(text)) << text;
    }
}

TEST(RequirementTest, EndsATextAtANul) {
    EXPECT_FALSE(isRequirement(std::string("anchor apple generic\0", 21)));
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
    EXPECT_FALSE(isRequirement(nested("(", ")", 33)));
    EXPECT_FALSE(isRequirement(std::string(1'000'000, '!')));
}

TEST(RequirementTest, TakesAnyNumberOfConditionsSideBySide) {
    std::string text = "anchor apple generic";
    for (int count = 0; count < 100'000; ++count) {
        text += count % 2 == 0 ? " and (anchor apple generic)" : " or !anchor apple generic";
    }

    EXPECT_TRUE(holds(text));
}

TEST(RequirementTest, ReadsNothingBehindTheText) {
    test::readEveryBeginning(test::strictRequirement, [](std::string_view text) {
        const auto words = text.substr(0, text.find_last_not_of(' ') + 1);
        const bool isWhole = words == "anchor apple generic" || words.ends_with(')') ||
                             words.ends_with("M4TZ\"") || words.ends_with("exists");
        EXPECT_EQ(Requirement::parse(text).has_value(), isWhole) << text;
    });
}

}  // namespace
}  // namespace tarnvale::platform
