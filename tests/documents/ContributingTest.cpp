// SPDX-License-Identifier: MIT
//
// CONTRIBUTING.md leads a newcomer right: the road of a request has every file that a request is
// in, the rooms are those of the architecture, and the bug template asks for what the program has.

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helperctl/CommandForms.h"
#include "support/Text.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Spans.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::IsSupersetOf;
using Names = std::set<std::string>;

const std::string& guide() {
    static const auto& text = *new std::string(contentOf(TARNVALE_SOURCE_DIR "/CONTRIBUTING.md"));
    return text;
}

/// What the guide says below a heading.
std::string section(const std::string& heading) {
    const auto start = guide().find("\n## " + heading + "\n");
    EXPECT_NE(start, std::string::npos) << heading;
    return guide().substr(start, guide().find("\n## ", start + 1) - start);
}

/// The files in which both requests are named, in any letter case, but for units' tests.
Names filesWith(std::string_view request, std::string_view other) {
    const fs::path top = TARNVALE_SOURCE_DIR;
    Names files;
    for (const char* folder :
         {"core",
          "docs",
          "helperctl",
          "platform",
          "tests/macos",
          "tests/support",
          "tests/system"}) {
        for (const auto& file : fs::recursive_directory_iterator(top / folder)) {
            const auto name = file.path().lexically_relative(top).string();
            if (!file.is_regular_file() || name.starts_with("tests/macos/xpc/") ||
                (name.find("Test.") != std::string::npos && !name.starts_with("tests/system/"))) {
                continue;
            }
            const auto content = support::asciiLower(contentOf(file.path()));
            if (content.find(support::asciiLower(request)) != std::string::npos &&
                content.find(support::asciiLower(other)) != std::string::npos) {
                files.insert(name);
            }
        }
    }
    return files;
}

TEST(ContributingTest, TheRoadOfARequestHasEveryFileThatRequestsAreIn) {
    Names named;
    for (const auto& path : pathsOf(section("Adding a request"))) {
        named.insert(path);
    }

    auto files = filesWith("installCLISymlink", "setTarnvaleResolver");

    // Tests of the whole that look at some requests only need no other.
    for (const char* test :
         {"tests/system/PackagingTest.cpp", "tests/system/ServiceConcurrencyTest.cpp"}) {
        files.erase(test);
    }
    EXPECT_THAT(named, IsSupersetOf(files));
}

TEST(ContributingTest, TheRoomsAreAllOfThem) {
    const auto text = section("The rooms");
    Names named;
    for (const auto& path : pathsOf(text)) {
        if (path.ends_with('/')) {
            named.insert(path);
        }
    }
    Names folders;
    for (const auto& entry : fs::directory_iterator(TARNVALE_SOURCE_DIR)) {
        const auto name = entry.path().filename().string();
        if (entry.is_directory() && !name.starts_with('.') && name != "build" &&
            name != "LICENSES" && name != "cmake") {
            folders.insert(name + "/");
        }
    }
    EXPECT_EQ(named, folders);
}

TEST(ContributingTest, TheExamplesOfTestsAreTests) {
    for (const auto& span : spansOf(section("Tests"))) {
        const auto point = span.find("Test.");
        if (point == std::string::npos || span.find('/') != std::string::npos ||
            span.ends_with(".cpp")) {
            continue;
        }
        const auto suite = span.substr(0, point + 4);
        bool found = false;
        for (const char* folder : {"firewall", "core", "helperctl", "tests"}) {
            for (const auto& file :
                 fs::recursive_directory_iterator(fs::path(TARNVALE_SOURCE_DIR) / folder)) {
                found = found ||
                        (file.path().filename() == suite + ".cpp" &&
                         contentOf(file.path()).find(span.substr(point + 5)) != std::string::npos);
            }
        }
        EXPECT_TRUE(found) << span;
    }
}

TEST(BugTemplateTest, AsksForCommandsThatThereAre) {
    const auto form = contentOf(TARNVALE_SOURCE_DIR "/.github/ISSUE_TEMPLATE/bug.yml");
    const auto& report = helperctl::formOf(helperctl::Command::report);
    EXPECT_THAT(
        form, HasSubstr("sudo tarnvale-helperctl " + std::string(report.words) + " --redact "));
    EXPECT_EQ(report.options.front().name, "--redact");
    EXPECT_THAT(
        form,
        HasSubstr(
            "sudo tarnvale-helperctl " +
            std::string(helperctl::formOf(helperctl::Command::doctor).words) + "`"));
}

}  // namespace
}  // namespace tarnvale::test
