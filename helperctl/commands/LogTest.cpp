// SPDX-License-Identifier: MIT

#include "helperctl/commands/Log.h"

#include <cstdio>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/base/HelperLog.h"
#include "helperctl/Answer.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/JsonSchema.h"

namespace tarnvale::helperctl {
namespace {

using testing::HasSubstr;

constexpr const char* entries =
    "2025-03-14T09:26:53Z Boot re-apply: Enforcing 1 network for all users: Lab\n"
    "2025-03-14T09:26:54Z applyFirewall failed: Some.\n"
    "Not enforced:\n"
    "• \033[2JLab\n"
    "2025-03-14T09:26:55Z All is well.\n"
    "2025-03-15T00:00:00Z Refused createVLAN for uid 502: not an administrator.\n";

class LogTest : public testing::Test {
protected:
    std::ostringstream output;
    std::ostringstream errors;
    Arguments arguments;
    Format format = Format::text;
    bool hasColour = false;

    int run() {
        output.str("");
        const Connect connect;
        Console console{
            .output = output, .errors = errors, .format = format, .hasColour = hasColour};
        return log({arguments, connect, console});
    }
};

TEST_F(LogTest, PrintsEntriesAndWhatBelongsToThem) {
    test::put(test::logPath, entries);

    EXPECT_EQ(run(), done);

    EXPECT_EQ(
        output.str(),
        "2025-03-14T09:26:53Z Boot re-apply: Enforcing 1 network for all users: Lab\n"
        "2025-03-14T09:26:54Z applyFirewall failed: Some.\n"
        "    | Not enforced:\n"
        "    | • \\u001b[2JLab\n"
        "2025-03-14T09:26:55Z ? All is well.\n"
        "2025-03-15T00:00:00Z Refused createVLAN for uid 502: not an administrator.\n");
}

TEST_F(LogTest, ColoursByOutcome) {
    test::put(test::logPath, entries);
    hasColour = true;

    run();

    EXPECT_THAT(output.str(), HasSubstr("\033[32mBoot re-apply: "));
    EXPECT_THAT(output.str(), HasSubstr("\033[31mapplyFirewall failed: "));
    EXPECT_THAT(output.str(), HasSubstr("    | \033[31mNot enforced:"));
    EXPECT_THAT(output.str(), HasSubstr(" ? All is well."));
    EXPECT_THAT(output.str(), HasSubstr("\033[33mRefused createVLAN"));
}

TEST_F(LogTest, Selects) {
    test::put(test::logPath, entries);
    arguments.since = "2025-03-15";
    run();
    EXPECT_EQ(
        output.str(),
        "2025-03-15T00:00:00Z Refused createVLAN for uid 502: not an administrator.\n");

    arguments.since.reset();
    arguments.operation = "applyFirewall";
    run();
    EXPECT_EQ(
        output.str(),
        "2025-03-14T09:26:54Z applyFirewall failed: Some.\n    | Not enforced:\n    | • "
        "\\u001b[2JLab\n");
}

TEST_F(LogTest, SaysWhatItDoesNotUnderstand) {
    test::put(test::logPath, entries);
    arguments.operation = "aplyFirewall";
    EXPECT_EQ(run(), usageError);
    EXPECT_EQ(
        errors.str(),
        "tarnvale-helperctl: --operation: the log knows no \"aplyFirewall\"\n"
        "Did you mean applyFirewall?\nRun tarnvale-helperctl help log for more.\n");

    errors.str("");
    arguments = {};
    arguments.since = "yesterday";
    EXPECT_EQ(run(), usageError);
    EXPECT_THAT(errors.str(), HasSubstr("--since: it is a time such as "));
}

TEST_F(LogTest, SaysThatThereIsNoLog) {
    std::filesystem::remove(test::logPath);

    EXPECT_THAT(
        [&] { run(); },
        testing::ThrowsMessage<std::runtime_error>(
            "There is no log yet: \"/var/log/tarnvale-adminhelper.log\" doesn't exist."));
}

TEST_F(LogTest, PrintsJsonOfItsSchema) {
    test::put(test::logPath, std::string(entries) + "2025-03-15T00:00:01Z \xFF\n");
    format = Format::json;

    EXPECT_EQ(run(), done);

    EXPECT_EQ(test::judgedBySchema("helperctl", output.str()), "yes");
    EXPECT_THAT(
        output.str(),
        HasSubstr(R"({"known":true,"message":"applyFirewall failed: Some.\nNot enforced:\n• )"
                  R"(\u001b[2JLab","operations":["applyFirewall"],"outcome":"failed",)"
                  R"("time":"2025-03-14T09:26:54Z"})"));
}

TEST_F(LogTest, ReadsOnAsTheFileGrows) {
    const std::string path = "/tmp/growing";
    std::filesystem::remove(path);
    GrowingFile file(path);
    EXPECT_EQ(file.readOn(), "");
    EXPECT_FALSE(file.exists());

    test::put(path, "one\ntwo\nth");
    EXPECT_EQ(file.readOn(), "one\ntwo\n");
    EXPECT_EQ(file.readOn(), "");
    std::FILE* const same = std::fopen(path.c_str(), "ae");
    std::fputs("ree\n", same);
    std::fclose(same);
    EXPECT_EQ(file.readOn(), "three\n");

    std::filesystem::resize_file(path, 0);
    std::FILE* const emptied = std::fopen(path.c_str(), "ae");
    std::fputs("four\n", emptied);
    std::fclose(emptied);
    EXPECT_EQ(file.readOn(), "four\n");

    std::filesystem::rename(path, path + ".1");
    test::put(path, "a new file with more in it\n");
    EXPECT_EQ(file.readOn(), "a new file with more in it\n");

    std::FILE* const rotated = std::fopen(path.c_str(), "ae");
    std::fputs("its last line\n", rotated);
    std::fclose(rotated);
    std::filesystem::rename(path, path + ".1");
    test::put(path, "a third file\n");
    EXPECT_EQ(file.readOn(), "its last line\na third file\n");
    EXPECT_EQ(file.readOn(), "");

    std::filesystem::remove(path);
    EXPECT_EQ(file.readOn(), "");
    std::filesystem::create_directory(path);
    EXPECT_THROW(file.readOn(), std::runtime_error);
}

TEST_F(LogTest, ReadsOnWhenTheHelperEmptiesItsLog) {
    test::put(test::logPath, "2025-03-14T09:26:53Z " + std::string(524'300, 'x') + "\n");
    GrowingFile file(test::logPath);
    EXPECT_GT(file.readOn().size(), 524'288U);

    helperLog("Removed firewall enforcement.");

    EXPECT_THAT(file.readOn(), testing::EndsWith("Z Removed firewall enforcement.\n"));
}

}  // namespace
}  // namespace tarnvale::helperctl
