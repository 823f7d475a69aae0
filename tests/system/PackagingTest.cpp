// SPDX-License-Identifier: MIT
//
// The units by which systemd starts the helper: that they are right, agree with the programs, and
// leave as little exposed as they may.

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/dbus/ListeningSocket.h"
#include "platform/linux/pfctl/RunState.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr const char* analyzer = "/usr/bin/systemd-analyze";
constexpr const char* packaging = TARNVALE_SOURCE_DIR "/packaging/linux/";
constexpr const char* installedHelper = "/usr/libexec/tarnvale/TarnvaleAdminHelper";
constexpr const char* socketUnit = "tarnvale-adminhelper.socket";
constexpr const char* serviceUnit = "tarnvale-adminhelper.service";

std::string textOf(const std::string& unit) {
    return contentOf(packaging + unit);
}

class PackagingTest : public testing::Test {
protected:
    /// Installs the units and what they start, and asks systemd about one of them.
    static Finished ask(std::vector<std::string> question, const std::string& unit) {
        const std::string folder = "/etc/systemd/system/";
        for (const char* installed : {socketUnit, serviceUnit}) {
            put(folder + installed, textOf(installed));
        }
        fs::create_directories(fs::path(installedHelper).parent_path());
        fs::copy_file(
            TARNVALE_BIN_DIR "/TarnvaleAdminHelper",
            installedHelper,
            fs::copy_options::overwrite_existing);
        question.insert(question.begin(), analyzer);
        question.push_back(folder + unit);
        return run(question);
    }
};

TEST_F(PackagingTest, TheSocketIsWhereClientsLookForIt) {
    EXPECT_THAT(
        textOf(socketUnit),
        HasSubstr(
            "\nListenStream=" + std::string(platform::listeningSocketPath) +
            "\n# Every user may connect. The helper looks at the program that calls, and then at "
            "its user.\nSocketMode=0666\n"));
}

TEST_F(PackagingTest, WhatPfctlRemembersOutlivesTheService) {
    const fs::path folder = pfctl::runFolder;

    ASSERT_EQ(folder.parent_path(), "/run");
    EXPECT_THAT(
        textOf(serviceUnit),
        HasSubstr(
            "\nRuntimeDirectory=" + folder.filename().string() +
            "\nRuntimeDirectoryMode=0700\nRuntimeDirectoryPreserve=yes\n"));
}

TEST_F(PackagingTest, NoNumberOfStartsEndsTheSocketOrTheService) {
    for (const char* unit : {socketUnit, serviceUnit}) {
        EXPECT_THAT(textOf(unit), HasSubstr("\nStartLimitIntervalSec=0\n")) << unit;
    }
    EXPECT_THAT(textOf(socketUnit), HasSubstr("\nTriggerLimitIntervalSec=0\n"));
}

class SystemdAnalyzeTest : public PackagingTest {
protected:
    void SetUp() override {
        if (!exists(analyzer)) {
            GTEST_SKIP() << "systemd-analyze is not installed";
        }
    }
};

TEST_F(SystemdAnalyzeTest, FindsNoFaultInTheUnits) {
    for (const char* unit : {socketUnit, serviceUnit}) {
        const Finished verified = ask({"verify", "--man=no"}, unit);

        EXPECT_EQ(verified.status, 0) << unit;
        EXPECT_EQ(verified.output + verified.error, "") << unit;
    }
}

TEST_F(SystemdAnalyzeTest, CallsTheServiceExposedByThreeAtMost) {
    const Finished rated = ask({"security", "--offline=true", "--threshold=30"}, serviceUnit);

    EXPECT_EQ(rated.status, 0) << rated.output << rated.error;
    EXPECT_THAT(
        rated.output, HasSubstr("Overall exposure level for tarnvale-adminhelper.service: "));
}

}  // namespace
}  // namespace tarnvale::test
