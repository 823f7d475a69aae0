// SPDX-License-Identifier: MIT

#include "helperctl/commands/Lint.h"

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/HelperError.h"
#include "helperctl/Answer.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/JsonSchema.h"

namespace tarnvale::helperctl {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

const char* const labPath = TARNVALE_SOURCE_DIR "/examples/lab.json";

/// What the command prints of the file.
struct PrintedFindings {
    int status = 0;
    std::string output;
    std::string errors;
};

PrintedFindings printed(const std::string& file, Format format = Format::text) {
    std::ostringstream output;
    std::ostringstream errors;
    Console console{.output = output, .errors = errors, .format = format};
    Arguments arguments;
    arguments.file = file;
    const int status = lint({.arguments = arguments, .connect = nullptr, .console = console});
    return {.status = status, .output = output.str(), .errors = errors.str()};
}

TEST(LintCommandTest, SaysWhereEachFindingIs) {
    // Rule 2 gets the remote of everything, so that rule 3 never decides.
    std::string policy = test::contentOf(labPath);
    policy.replace(policy.find("10.0.0.0/8"), 10, "any");
    const auto second = policy.rfind("        {\n");
    const auto end = policy.rfind("        }") + 9;
    policy.insert(end, ",\n" + policy.substr(second, end - second));

    const auto found = linted(policy, {});

    ASSERT_EQ(found.findings.size(), found.places.size());
    const auto place = std::find(found.paths.begin(), found.paths.end(), "[0].policy.rules[2]");
    ASSERT_NE(place, found.paths.end());
    const auto index = static_cast<std::size_t>(place - found.paths.begin());
    EXPECT_EQ(found.places[index], (support::JsonPlace{.line = 31, .column = 9}));
    EXPECT_TRUE(found.isAnySerious());
}

TEST(LintCommandTest, PrintsWhatPeopleAndEditorsRead) {
    const auto text = printed(labPath);

    EXPECT_EQ(text.status, done);
    EXPECT_EQ(
        text.output,
        std::string(labPath) +
            ":8:15: note: Lab [ipv6]\n"
            "    Every line names an IPv4 network: what it blocks over IPv4 passes over IPv6.\n"
            "    That is so for all networks.\n");
    EXPECT_EQ(text.errors, "0 errors, 0 warnings, 1 note.\n");
}

TEST(LintCommandTest, PrintsJsonOfItsSchema) {
    for (const char* example : {"lab", "isolated", "web-server", "home", "open-lab"}) {
        const auto json = printed(
            TARNVALE_SOURCE_DIR "/examples/" + std::string(example) + ".json", Format::json);

        EXPECT_THAT(json.output, HasSubstr(R"({"formatVersion":1,"lint":{"file":")"));
        EXPECT_EQ(test::judgedBySchema("helperctl", json.output), "yes") << json.output;
        EXPECT_EQ(json.errors, "");
    }
}

TEST(LintCommandTest, FailsForWhatIsNoPolicy) {
    EXPECT_THAT(
        [] { linted("[{}]", {}); },
        ThrowsMessage<HelperFirewall::HelperError>(
            "Could not read the firewall policy: missing key \"networkID\" at [0]"));
}

TEST(LintCommandTest, ItsHelpKnowsEveryCode) {
    for (const std::string_view code : FirewallAnalysis::findingCodes) {
        EXPECT_THAT(std::string(lintHelp), HasSubstr(code));
        EXPECT_THAT(
            test::contentOf(TARNVALE_SOURCE_DIR "/docs/helperctl.schema.json"),
            HasSubstr("\"" + std::string(code) + "\""));
    }
}

}  // namespace
}  // namespace tarnvale::helperctl
