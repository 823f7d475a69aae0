// SPDX-License-Identifier: MIT
//
// tarnvale-helperctl as it is shipped, signed or not, and the helper that it asks.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/ServiceLab.h"

namespace tarnvale::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Words = std::vector<std::string>;

const char* const unsignedProgram = TARNVALE_BIN_DIR "/tarnvale-helperctl";

/// One network, "Lab", which anybody may have.
const char* const labPath = TARNVALE_SOURCE_DIR "/examples/lab.json";

constexpr const char* onlyRootMayChange =
    "Only root may change anything by tarnvale-helperctl: the helper admits it, so any program "
    "could use it as its proxy.\n";
constexpr const char* administratorsOnly =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.";

MATCHER_P2(Prints, status, output, "") {
    *result_listener << "status " << arg.status << ", error \"" << arg.error << "\"";
    return arg.status == status && arg.output == output && arg.error.empty();
}

MATCHER_P2(Complains, status, error, "") {
    *result_listener << "status " << arg.status << ", output \"" << arg.output << "\"";
    return arg.status == status && arg.error == error && arg.output.empty();
}

class HelperctlTest : public testing::Test {
protected:
    ServiceLab lab;
    const std::string signedProgram =
        ServiceLab::signCopy(unsignedProgram, applicationIdentifier, lab.development, "/tmp/ctl");

    /// Runs it as root.
    Finished ctl(const Words& arguments, std::string_view input = {}) const {
        Words command{signedProgram};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command, input);
    }

    /// Runs it as that user.
    Finished ctlAs(uid_t user, const Words& arguments) const {
        Words command{
            "/usr/bin/setpriv",
            "--reuid=" + std::to_string(user),
            "--regid=20",
            "--clear-groups",
            signedProgram};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command);
    }
};

TEST_F(HelperctlTest, PrintsTheHelpersVersion) {
    const Service service;

    EXPECT_THAT(ctl({"version"}), Prints(0, helperVersion() + "\n"));
    EXPECT_THAT(
        ctl({"--format", "json", "version"}),
        Prints(0, "{\"version\":\"" + helperVersion() + "\"}\n"));
}

TEST_F(HelperctlTest, AppliesAFileShowsItAndRemovesIt) {
    const Service service;

    EXPECT_THAT(ctl({"apply", labPath}), Prints(0, "Enforcing 1 network: Lab\n"));

    const auto status = ctl({"status"});
    EXPECT_EQ(status.status, 0) << status.error;
    EXPECT_THAT(status.output, StartsWith("== pf status ==\nStatus: Enabled"));
    EXPECT_THAT(status.output, HasSubstr("192.168.64.0/24"));

    EXPECT_THAT(ctl({"remove"}), Prints(0, ""));
    EXPECT_THAT(ctl({"status"}).output, HasSubstr("\n(anchor is empty — nothing enforced)\n"));
}

TEST_F(HelperctlTest, AppliesForTheUserThatRootNames) {
    if (!isRealRoot()) {
        GTEST_SKIP() << "there is one user only";
    }
    const Service service;

    EXPECT_THAT(
        ctl({"--user", "ada", "apply", "-"}, contentOf(labPath)),
        Prints(0, "Enforcing 1 network: Lab\n"));

    EXPECT_THAT(contentOf(storePath), HasSubstr("\"501\""));
    EXPECT_THAT(
        ctl({"--user", "eve", "apply", "-"}, contentOf(labPath)),
        Complains(1, std::string(administratorsOnly) + "\n"));
}

TEST_F(HelperctlTest, IsTurnedAwayWithoutASignature) {
    const Service service;

    const auto finished = run({unsignedProgram, "version"});

    EXPECT_THAT(
        finished,
        Complains(
            4,
            "The helper closed the connection: it doesn't admit this program, or has too many "
            "connections already.\n"));
}

TEST_F(HelperctlTest, SaysThatThereIsNoHelper) {
    EXPECT_THAT(
        ctl({"version"}), Complains(3, "Could not reach the helper: No such file or directory.\n"));
}

TEST_F(HelperctlTest, ChangesNothingForAnybodyButRoot) {
    if (!isRealRoot()) {
        GTEST_SKIP() << "there is one user only";
    }
    const Service service;

    EXPECT_THAT(ctlAs(administrator, {"remove"}), Complains(1, onlyRootMayChange));
    EXPECT_THAT(ctlAs(administrator, {"version"}), Prints(0, helperVersion() + "\n"));
}

}  // namespace
}  // namespace tarnvale::test
