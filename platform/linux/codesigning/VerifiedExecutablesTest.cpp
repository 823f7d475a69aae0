// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/VerifiedExecutables.h"

#include <functional>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::platform {
namespace {

using testing::Eq;
using testing::Optional;

constexpr std::int64_t expiry = 1'000;
constexpr const char* base = "anchor apple generic";

FileIdentity file(ino_t inode) {
    struct stat status {};
    status.st_dev = 7;
    status.st_ino = inode;
    status.st_size = 4096;
    status.st_ctim = {.tv_sec = 100, .tv_nsec = 500};
    return FileIdentity(status);
}

class VerifiedExecutablesTest : public testing::Test {
protected:
    void remember(const FileIdentity& executable, const char* requirement = base) {
        verified.remember(
            {.executable = executable, .roots = roots, .validUntil = expiry},
            information,
            requirement);
    }

    bool meets(const FileIdentity& executable, const char* requirement = base) const {
        return verified.meets(executable, roots, expiry - 1, requirement);
    }

    const FileIdentity client = file(10);
    const FileIdentity roots = file(20);
    const SigningInformation information = {
        .teamIdentifier = "K7PD2QM4TZ", .identifier = "com.brackwen.tarnvale"};
    VerifiedExecutables verified;
};

TEST_F(VerifiedExecutablesTest, KnowsNothingAtFirst) {
    EXPECT_FALSE(meets(client));
    EXPECT_THAT(verified.informationOf(client), Eq(std::nullopt));
}

TEST_F(VerifiedExecutablesTest, KnowsWhatItIsToRemember) {
    remember(client);

    EXPECT_TRUE(meets(client));
    EXPECT_THAT(verified.informationOf(client), Optional(information));
}

TEST_F(VerifiedExecutablesTest, KnowsTheRequirementThatWasMetAndNoOther) {
    remember(client);
    EXPECT_FALSE(meets(client, "identifier \"x\""));

    remember(client, "identifier \"x\"");
    EXPECT_TRUE(meets(client, "identifier \"x\""));
    EXPECT_TRUE(meets(client));
}

TEST_F(VerifiedExecutablesTest, DoesNotKnowAFileThatHasChanged) {
    remember(client);

    const std::vector<std::function<void(FileIdentity&)>> changes = {
        [](FileIdentity& changed) { changed.device += 1; },
        [](FileIdentity& changed) { changed.inode += 1; },
        [](FileIdentity& changed) { changed.size += 1; },
        [](FileIdentity& changed) { changed.changedSeconds += 1; },
        [](FileIdentity& changed) { changed.changedNanoseconds += 1; },
    };
    for (const auto& change : changes) {
        FileIdentity changed = client;
        change(changed);
        EXPECT_FALSE(meets(changed));
        EXPECT_FALSE(verified.meets(client, changed, expiry - 1, base)) << "other roots";
    }
}

TEST_F(VerifiedExecutablesTest, ForgetsOneWhoseCertificatesHaveExpired) {
    remember(client);

    EXPECT_FALSE(verified.meets(client, roots, expiry, base));
}

TEST_F(VerifiedExecutablesTest, ForgetsOtherRequirementsWithTheRootsTheyWereMetBy) {
    remember(client, "identifier \"x\"");
    const FileIdentity newRoots = file(30);
    verified.remember(
        {.executable = client, .roots = newRoots, .validUntil = expiry}, information, base);

    EXPECT_TRUE(verified.meets(client, newRoots, expiry - 1, base));
    EXPECT_FALSE(verified.meets(client, newRoots, expiry - 1, "identifier \"x\""));
    EXPECT_FALSE(meets(client));
}

TEST_F(VerifiedExecutablesTest, HasABoundAndForgetsTheOldest) {
    for (ino_t inode = 1; inode <= VerifiedExecutables::maxExecutables; ++inode) {
        remember(file(inode));
    }
    EXPECT_TRUE(meets(file(1)));

    remember(file(1000));

    EXPECT_FALSE(meets(file(1)));
    EXPECT_TRUE(meets(file(2)));
    EXPECT_TRUE(meets(file(1000)));
}

TEST_F(VerifiedExecutablesTest, KeepsTheBadOnesApartFromTheGoodOnes) {
    remember(client);
    verified.rememberMismatch(file(1));
    EXPECT_TRUE(verified.isMismatch(file(1)));
    EXPECT_FALSE(verified.isMismatch(client));

    for (ino_t inode = 2; inode <= VerifiedExecutables::maxExecutables + 1; ++inode) {
        verified.rememberMismatch(file(inode));
    }

    EXPECT_FALSE(verified.isMismatch(file(1))) << "the oldest";
    EXPECT_TRUE(verified.isMismatch(file(2)));
    EXPECT_TRUE(meets(client));
}

}  // namespace
}  // namespace tarnvale::platform
