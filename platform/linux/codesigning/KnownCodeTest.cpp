// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/KnownCode.h"

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

class KnownCodeTest : public testing::Test {
protected:
    void remember(const FileIdentity& executable, const char* requirement = base) {
        known.remember(
            {.executable = executable, .roots = roots, .validUntil = expiry},
            information,
            requirement);
    }

    bool isKnown(const FileIdentity& executable, const char* requirement = base) const {
        return known.isKnown(executable, roots, expiry - 1, requirement);
    }

    const FileIdentity client = file(10);
    const FileIdentity roots = file(20);
    const SigningInformation information = {
        .teamIdentifier = "K7PD2QM4TZ", .identifier = "com.brackwen.tarnvale"};
    KnownCode known;
};

TEST_F(KnownCodeTest, KnowsNothingAtFirst) {
    EXPECT_FALSE(isKnown(client));
    EXPECT_THAT(known.informationOf(client), Eq(std::nullopt));
}

TEST_F(KnownCodeTest, KnowsWhatItIsToRemember) {
    remember(client);

    EXPECT_TRUE(isKnown(client));
    EXPECT_THAT(known.informationOf(client), Optional(information));
}

TEST_F(KnownCodeTest, KnowsTheRequirementThatWasMetAndNoOther) {
    remember(client);
    EXPECT_FALSE(isKnown(client, "identifier \"x\""));

    remember(client, "identifier \"x\"");
    EXPECT_TRUE(isKnown(client, "identifier \"x\""));
    EXPECT_TRUE(isKnown(client));
}

TEST_F(KnownCodeTest, DoesNotKnowAFileThatHasChanged) {
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
        EXPECT_FALSE(isKnown(changed));
        EXPECT_FALSE(known.isKnown(client, changed, expiry - 1, base)) << "other roots";
    }
}

TEST_F(KnownCodeTest, ForgetsOneWhoseCertificatesHaveExpired) {
    remember(client);

    EXPECT_FALSE(known.isKnown(client, roots, expiry, base));
}

TEST_F(KnownCodeTest, ForgetsOtherRequirementsWithTheRootsTheyWereMetBy) {
    remember(client, "identifier \"x\"");
    const FileIdentity newRoots = file(30);
    known.remember(
        {.executable = client, .roots = newRoots, .validUntil = expiry}, information, base);

    EXPECT_TRUE(known.isKnown(client, newRoots, expiry - 1, base));
    EXPECT_FALSE(known.isKnown(client, newRoots, expiry - 1, "identifier \"x\""));
    EXPECT_FALSE(isKnown(client));
}

TEST_F(KnownCodeTest, HasABoundAndForgetsTheOldest) {
    for (ino_t inode = 1; inode <= KnownCode::mostExecutables; ++inode) {
        remember(file(inode));
    }
    EXPECT_TRUE(isKnown(file(1)));

    remember(file(1000));

    EXPECT_FALSE(isKnown(file(1)));
    EXPECT_TRUE(isKnown(file(2)));
    EXPECT_TRUE(isKnown(file(1000)));
}

}  // namespace
}  // namespace tarnvale::platform
