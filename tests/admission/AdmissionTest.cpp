// SPDX-License-Identifier: MIT
//
// Which clients a helper admits, depending on how both are signed: with real signatures, made by
// scripts/dev-ca and scripts/codesign.

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/SocketPeer.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr const char* helperPath = "/tmp/helper";
constexpr const char* clientPath = "/tmp/client";
constexpr const char* application = "com.brackwen.tarnvale";
constexpr const char* serviceProcess = "com.brackwen.tarnvale.service";

constexpr const char* strictAndAdmitted =
    "helper: Developer ID\nadmitted: yes\nrequirement met: yes\n";
constexpr const char* strictAndRejected =
    "helper: Developer ID\nadmitted: no\nrequirement met: no\n";
constexpr const char* admitted = "helper: development\nadmitted: yes\nrequirement met: yes\n";
constexpr const char* rejected = "helper: development\nadmitted: no\nrequirement met: no\n";

/// Team and identifier are right, and nobody vouches for them.
constexpr const char* admittedButUseless =
    "helper: development\nadmitted: yes\nrequirement met: no\n";

constexpr const char* scripts = TARNVALE_SOURCE_DIR "/scripts/";

Finished runScript(const std::string& name, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"/bin/bash", scripts + name});
    return run(arguments);
}

class AdmissionTest : public testing::Test {
protected:
    AdmissionTest() {
        makeAuthority("development", {});
        makeAuthority("developer-id", {"--developer-id"});
        fs::create_directories("/etc/tarnvale");
        std::ofstream("/etc/tarnvale/code-signing-roots.pem")
            << contentOf("/tmp/development/root.pem") << contentOf("/tmp/developer-id/root.pem");
        copy(TARNVALE_BIN_DIR "/admission-probe", helperPath);
        copy("/bin/sleep", clientPath);
    }

    static void makeAuthority(const std::string& name, std::vector<std::string> arguments) {
        fs::remove_all("/tmp/" + name);
        arguments.push_back("/tmp/" + name);
        const Finished made = runScript("dev-ca", arguments);
        ASSERT_EQ(made.status, 0) << made.error;
    }

    static void copy(const std::string& from, const std::string& to) {
        fs::copy_file(from, to, fs::copy_options::overwrite_existing);
    }

    static void sign(
        const std::string& path, const std::string& identifier, const std::string& authority) {
        const std::string folder = "/tmp/" + authority;
        const Finished done =
            runScript("codesign", {folder + "/leaf.key", folder + "/chain.pem", identifier, path});
        ASSERT_EQ(done.status, 0) << done.error;
        EXPECT_EQ(done.output + done.error, "");
    }

    /// What the helper says about the client.
    static std::string verdict() {
        const SocketPeer client({clientPath, "1000"});
        return run({helperPath, std::to_string(client.pid())}).output;
    }
};

TEST_F(AdmissionTest, ADevelopmentSignedHelperAdmitsBothKindsOfClient) {
    sign(helperPath, "com.brackwen.tarnvale.adminhelper", "development");
    for (const char* authority : {"development", "developer-id"}) {
        for (const char* identifier : {application, serviceProcess}) {
            sign(clientPath, identifier, authority);
            EXPECT_EQ(verdict(), admitted) << authority << identifier;
        }
    }
}

TEST_F(AdmissionTest, AnUnsignedHelperAdmitsLikeADevelopmentSignedOne) {
    sign(clientPath, application, "development");

    EXPECT_EQ(verdict(), admitted);
}

TEST_F(AdmissionTest, ADeveloperIDSignedHelperAdmitsOnlyItsLike) {
    sign(helperPath, "com.brackwen.tarnvale.adminhelper", "developer-id");

    sign(clientPath, application, "developer-id");
    EXPECT_EQ(verdict(), strictAndAdmitted);
    sign(clientPath, application, "development");
    EXPECT_EQ(verdict(), strictAndRejected);
}

TEST_F(AdmissionTest, AHelperWhoseSignatureIsNotValidIsNoDeveloperIDSignedOne) {
    sign(helperPath, "com.brackwen.tarnvale.adminhelper", "developer-id");
    sign(clientPath, application, "development");
    std::ofstream("/etc/tarnvale/code-signing-roots.pem") << contentOf("/tmp/development/root.pem");

    EXPECT_EQ(verdict(), admitted);
}

TEST_F(AdmissionTest, NobodyAdmitsAnUnsignedClient) {
    EXPECT_EQ(verdict(), rejected);
    sign(helperPath, "com.brackwen.tarnvale.adminhelper", "developer-id");
    EXPECT_EQ(verdict(), strictAndRejected);
}

TEST_F(AdmissionTest, NobodyAdmitsAnotherTeamOrIdentifier) {
    makeAuthority("other", {"--team", "OTHERTEAM1"});
    std::ofstream("/etc/tarnvale/code-signing-roots.pem", std::ios::app)
        << contentOf("/tmp/other/root.pem");

    sign(clientPath, application, "other");
    EXPECT_EQ(verdict(), rejected);
    sign(clientPath, "com.brackwen.tarnvale.other", "development");
    EXPECT_EQ(verdict(), rejected);
}

TEST_F(AdmissionTest, TheFirstMessageEndsWhatOnlyLooksRight) {
    makeAuthority("stranger", {});
    sign(clientPath, application, "stranger");

    EXPECT_EQ(verdict(), admittedButUseless);

    sign(helperPath, "com.brackwen.tarnvale.adminhelper", "developer-id");
    EXPECT_EQ(verdict(), strictAndRejected);
}

class CodesignTest : public AdmissionTest {};

TEST_F(CodesignTest, ReplacesAnEarlierSignature) {
    ::chmod(clientPath, 0711);
    sign(clientPath, "com.example.longer.than.the.other.one", "developer-id");
    sign(clientPath, application, "development");
    const auto once = fs::file_size(clientPath);
    sign(clientPath, application, "development");

    EXPECT_NEAR(static_cast<double>(fs::file_size(clientPath)), static_cast<double>(once), 6)
        << "signatures differ by a few bytes";
    EXPECT_TRUE(contentOf(clientPath).starts_with(contentOf("/bin/sleep")));
    EXPECT_EQ(fs::status(clientPath).permissions(), fs::perms(0711));
    EXPECT_EQ(verdict(), admitted);
}

TEST_F(CodesignTest, SignsAProgramThatRuns) {
    const SocketPeer running({clientPath, "1000"});

    sign(clientPath, application, "development");

    EXPECT_EQ(verdict(), admitted);
    EXPECT_EQ(run({helperPath, std::to_string(running.pid())}).output, rejected)
        << "it runs the file that it started from";
}

TEST_F(CodesignTest, LeavesTheFileAsItIsWhenItCannotSign) {
    const std::string before = contentOf(clientPath);
    const auto refusal = [](const std::vector<std::string>& arguments) {
        const Finished done = runScript("codesign", arguments);
        EXPECT_EQ(done.status, 1);
        return done.error;
    };

    EXPECT_THAT(
        refusal({"/tmp/other.key", "/tmp/development/chain.pem", application, clientPath}),
        HasSubstr("codesign: /tmp/other.key is no file"));
    EXPECT_THAT(
        refusal(
            {"/tmp/developer-id/leaf.key", "/tmp/development/chain.pem", application, clientPath}),
        HasSubstr("codesign: openssl does not sign with /tmp/developer-id/leaf.key"));
    EXPECT_THAT(
        refusal(
            {"/tmp/development/leaf.key", "/tmp/development/leaf.key", application, clientPath}),
        HasSubstr("codesign: /tmp/development/leaf.key has no certificate"));
    EXPECT_THAT(
        refusal({"/tmp/development/leaf.key", "/tmp/development/chain.pem", "a\nb", clientPath}),
        HasSubstr("is no identifier"));
    EXPECT_EQ(runScript("codesign", {"one", "two"}).status, 2);
    EXPECT_EQ(contentOf(clientPath), before);
    for (const auto& entry : fs::directory_iterator("/tmp")) {
        EXPECT_FALSE(entry.path().filename().string().starts_with(".codesign")) << entry;
    }
}

TEST_F(CodesignTest, RefusesAFileWhoseSignatureIsDamaged) {
    sign(clientPath, application, "development");
    std::string bytes = contentOf(clientPath);
    bytes[bytes.size() - 30] = '\x7F';
    std::ofstream(clientPath, std::ios::binary) << bytes;

    const Finished done = runScript(
        "codesign",
        {"/tmp/development/leaf.key", "/tmp/development/chain.pem", application, clientPath});

    EXPECT_EQ(done.status, 1);
    EXPECT_EQ(done.error, "codesign: the signature of /tmp/client is damaged\n");
}

TEST_F(CodesignTest, KeepsAnAuthorityThatIsThere) {
    const std::string key = contentOf("/tmp/development/leaf.key");

    const Finished again = runScript("dev-ca", {"/tmp/development"});

    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.error, "dev-ca: /tmp/development has a root already\n");
    EXPECT_EQ(contentOf("/tmp/development/leaf.key"), key);
    EXPECT_EQ(fs::status("/tmp/development/leaf.key").permissions(), fs::perms(0600));
    EXPECT_EQ(runScript("dev-ca", {}).status, 2);
    EXPECT_EQ(runScript("dev-ca", {"--team", "A B", "/tmp/x"}).status, 2);
    EXPECT_EQ(runScript("dev-ca", {"--other", "/tmp/x"}).status, 2);
}

}  // namespace
}  // namespace tarnvale::test
