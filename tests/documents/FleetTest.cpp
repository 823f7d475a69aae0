// SPDX-License-Identifier: MIT
//
// What docs/fleet.md has administrators of many Macs run: its scripts read what doctor prints, and
// its commands, files and options are there.

#include <filesystem>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helperctl/Arguments.h"
#include "support/Text.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/Spans.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using Words = std::vector<std::string>;

constexpr const char* tool = "/usr/local/bin/tarnvale-helperctl";
constexpr const char* database = "/var/db/tarnvale-doctor.sqlite";

std::string document() {
    return contentOf(TARNVALE_SOURCE_DIR "/docs/fleet.md");
}

/// The document's blocks that begin so.
Words blocksThatBegin(std::string_view start) {
    Words blocks;
    for (auto& block : blocksOf(document())) {
        if (block.starts_with(start)) {
            blocks.push_back(std::move(block));
        }
    }
    return blocks;
}

Words linesOf(const std::string& text) {
    Words lines;
    for (const auto line : support::split(text, '\n')) {
        if (!line.empty()) {
            lines.emplace_back(line);
        }
    }
    return lines;
}

class FleetTest : public testing::Test {
protected:
    void SetUp() override {
        if (!exists("/usr/bin/sqlite3")) {
            GTEST_SKIP() << "sqlite3 is not installed";
        }
        fs::create_directories("/usr/local/bin");
        fs::create_directories("/var/db");
        fs::remove(tool);
        fs::remove(database);
        const auto scripts = blocksThatBegin("#!/bin/sh\n");
        ASSERT_THAT(scripts, SizeIs(2));
        attribute = scripts[0];
        job = scripts[1];
    }

    static void install() { fs::create_symlink(TARNVALE_BIN_DIR "/tarnvale-helperctl", tool); }

    /// Has a program print this in place of the client.
    static void pretend(const std::string& output) {
        put("/tmp/output", output);
        put(tool, "#!/bin/sh\ncat /tmp/output\n");
        fs::permissions(tool, fs::perms(0755));
    }

    /// Runs a script as a file, as management systems do.
    static Finished execute(const std::string& script) {
        put("/tmp/script", script);
        fs::permissions("/tmp/script", fs::perms(0755));
        return run({"/tmp/script"});
    }

    static Words ask(const std::string& query, const std::string& path = ":memory:") {
        const auto asked = run({"/usr/bin/sqlite3", "-header", path, query});
        EXPECT_EQ(asked.error, "") << query;
        return linesOf(asked.output);
    }

    /// The checks that doctor's page has in this state, by their names.
    static Words checksThatAre(std::string_view state) {
        Words names;
        for (const auto& line : linesOf(run({tool, "doctor"}).output)) {
            if (line.starts_with(state)) {
                const auto name = line.find_first_not_of(' ', state.size());
                names.push_back(line.substr(name, line.find(':') - name));
            }
        }
        return names;
    }

    std::string attribute;
    std::string job;
};

TEST_F(FleetTest, TheAttributeNamesTheProblemsThatDoctorFinds) {
    install();
    const auto problems = checksThatAre("problem");
    ASSERT_THAT(problems, Not(IsEmpty()));  // no helper runs here

    const auto told = execute(attribute);

    std::string names;
    for (const auto& problem : problems) {
        names.append(names.empty() ? "" : ", ").append(problem);
    }
    EXPECT_EQ(told.output, "<result>" + names + "</result>\n");
    EXPECT_EQ(told.error, "");
}

TEST_F(FleetTest, TheAttributeIsOkWithoutAProblem) {
    pretend(
        R"({"formatVersion":1,"doctor":[{"check":"pf","state":"ok","says":"It's on.","advice":""}]})");

    EXPECT_EQ(execute(attribute).output, "<result>ok</result>\n");
}

TEST_F(FleetTest, TheTableHasAllThatDoctorSays) {
    install();
    const auto configuration = blocksThatBegin("{\n");
    ASSERT_THAT(configuration, SizeIs(1));
    const auto member = [&](const std::string& path) {
        const auto rows =
            ask("SELECT value FROM json_each('" + configuration[0] +
                "', '$.auto_table_construction.tarnvale_doctor" + path + "')");
        return Words(rows.begin() + 1, rows.end());
    };
    ASSERT_EQ(member(".path"), Words{database});

    for (int time = 0; time < 2; ++time) {
        EXPECT_EQ(execute(job).error, "");
    }

    std::string columns;
    for (const auto& column : member(".columns")) {
        columns.append(columns.empty() ? "" : "|").append(column);
    }
    const auto rows = ask(member(".query").front(), database);
    EXPECT_EQ(rows.front(), columns);
    std::size_t checks = 0;
    for (const std::string state : {"ok", "problem", "can't tell"}) {
        const auto names = checksThatAre(state);
        checks += names.size();
        if (state == "problem") {
            const auto problems = ask("SELECT name FROM doctor WHERE state = 'problem'", database);
            EXPECT_THAT(Words(problems.begin() + 1, problems.end()), ElementsAreArray(names));
        }
    }
    EXPECT_EQ(rows.size() - 1, checks);
    EXPECT_THAT(
        ask("SELECT * FROM doctor WHERE name IS NULL OR state NOT IN ('ok', 'problem', 'unknown') "
            "OR "
            "says IS NULL OR advice IS NULL",
            database),
        IsEmpty());
}

TEST_F(FleetTest, WhatWasThereStaysIfTheClientCantBeRun) {
    pretend(
        R"({"formatVersion":1,"doctor":[{"check":"pf","state":"ok","says":"It's on.","advice":""}]})");
    execute(job);
    fs::remove(tool);

    EXPECT_NE(execute(job).status, 0);
    EXPECT_EQ(
        ask("SELECT * FROM doctor", database),
        (Words{"name|state|says|advice", "pf|ok|It's on.|"}));

    const auto told = execute(attribute);
    EXPECT_NE(told.status, 0);
    EXPECT_EQ(told.output, "");
}

TEST(FleetDocumentTest, NamesCommandsThatThereAre) {
    std::size_t commands = 0;
    for (const auto& span : spansOf(document())) {
        if (!span.starts_with("tarnvale-helperctl ")) {
            continue;
        }
        ++commands;
        Words words;
        for (const auto word : support::split(span, ' ')) {
            words.emplace_back(word);
        }
        std::vector<const char*> argv;
        for (const auto& word : words) {
            argv.push_back(word.c_str());
        }
        EXPECT_TRUE(std::holds_alternative<helperctl::Arguments>(
            helperctl::parseArguments(static_cast<int>(argv.size()), argv.data())))
            << span;
    }
    EXPECT_EQ(commands, 4U);
}

TEST(FleetDocumentTest, NamesOptionsOfTheUninstaller) {
    const auto text = document();
    const auto uninstaller = contentOf(TARNVALE_SOURCE_DIR "/packaging/macos/uninstall");
    std::size_t options = 0;
    for (auto at = text.find("--keep-"); at != std::string::npos;
         at = text.find("--keep-", at + 1)) {
        const auto option = text.substr(at, text.find_first_of("`\n ,;", at) - at);
        EXPECT_THAT(uninstaller, HasSubstr("\n            " + option + ") ")) << option;
        ++options;
    }
    EXPECT_GE(options, 2U);
}

TEST(FleetDocumentTest, NamesWhatTheProfileAllows) {
    const auto profile = contentOf(
        TARNVALE_SOURCE_DIR "/packaging/macos/com.brackwen.tarnvale.adminhelper.mobileconfig");
    for (const std::string name :
         {"com.apple.servicemanagement", "com.brackwen.tarnvale.adminhelper", "K7PD2QM4TZ"}) {
        EXPECT_THAT(document(), HasSubstr("`" + name + "`"));
        EXPECT_THAT(profile, HasSubstr("<string>" + name + "</string>"));
    }
    EXPECT_THAT(profile, HasSubstr("<key>Rules</key>"));
}

}  // namespace
}  // namespace tarnvale::test
