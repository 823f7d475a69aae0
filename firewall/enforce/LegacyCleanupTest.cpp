// SPDX-License-Identifier: MIT

#include "firewall/enforce/LegacyCleanup.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/ScriptedPfctl.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::HelperFirewall {
namespace {

using test::backupPath;
using test::contentOf;
using test::exists;
using test::logMessages;
using test::modeOf;
using test::put;
using test::ScriptedPfctl;
using test::supportFolder;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* pfConf = "/etc/pf.conf";
constexpr const char* legacyRules = "/etc/pf.anchors/com.tarnvale.firewall";
constexpr const char* cleanedUp = "Removed legacy anchor references from /etc/pf.conf.";

class LegacyCleanupTest : public testing::Test {
protected:
    void TearDown() override {
        if (IsSkipped()) {
            return;
        }
        EXPECT_THAT(pfctl.calls(), testing::Contains(test::pfctlCall::flushLegacy));
    }

    ScriptedPfctl pfctl;
};

TEST_F(LegacyCleanupTest, IsHarmlessWhenThereIsNothingToCleanUp) {
    removeLegacyAnchor();

    EXPECT_FALSE(exists(pfConf));
    EXPECT_FALSE(exists("/Library"));
    EXPECT_THAT(logMessages(), IsEmpty());
    EXPECT_THAT(pfctl.calls(), ElementsAre(test::pfctlCall::flushLegacy));
}

TEST_F(LegacyCleanupTest, LeavesAFileWithoutTheOldNameAlone) {
    const std::string text = "anchor \"com.apple/*\"\nanchor \"com.apple/900.tarnvale.firewall\"\n";
    put(pfConf, text);
    put(legacyRules, "pass");

    removeLegacyAnchor();

    EXPECT_EQ(contentOf(pfConf), text);
    EXPECT_FALSE(exists(backupPath));
    EXPECT_FALSE(exists(legacyRules));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(LegacyCleanupTest, RemovesEveryLineThatNamesTheOldAnchor) {
    const std::string text =
        "scrub-anchor \"com.apple/*\"\n\n\t anchor \"com.tarnvale.firewall\"\n"
        "# com.tarnvale.firewall was here\nanchor \"com.apple/900.tarnvale.firewall\"\n"
        "load anchor \"com.tarnvale.firewall\" from \"/etc/pf.anchors/com.tarnvale.firewall\"\n";
    put(pfConf, text);

    removeLegacyAnchor();

    EXPECT_EQ(
        contentOf(pfConf),
        "scrub-anchor \"com.apple/*\"\n\nanchor \"com.apple/900.tarnvale.firewall\"\n");
    EXPECT_EQ(contentOf(backupPath), text);
    EXPECT_THAT(logMessages(), ElementsAre(cleanedUp));
}

TEST_F(LegacyCleanupTest, KeepsTheFinalLineFeedAndTheLackOfOne) {
    put(pfConf, "pass\nanchor com.tarnvale.firewall\n");
    removeLegacyAnchor();
    EXPECT_EQ(contentOf(pfConf), "pass\n");

    put(pfConf, "pass\nanchor com.tarnvale.firewall");
    removeLegacyAnchor();
    EXPECT_EQ(contentOf(pfConf), "pass");

    put(pfConf, "com.tarnvale.firewall");
    removeLegacyAnchor();
    EXPECT_EQ(contentOf(pfConf), "");
}

TEST_F(LegacyCleanupTest, NeverOverwritesTheFirstBackup) {
    put(pfConf, "first com.tarnvale.firewall\n");
    removeLegacyAnchor();
    put(pfConf, "second com.tarnvale.firewall\n");

    removeLegacyAnchor();

    EXPECT_EQ(contentOf(backupPath), "first com.tarnvale.firewall\n");
    EXPECT_EQ(contentOf(pfConf), "");
}

/// Cleans up on a machine that fails so many times to say whether there is a backup. Returns how
/// many times it was asked.
int cleanUpWithFailures(int failures) {
    int asked = 0;
    test::watchCalls(
        SYS_newfstatat,
        [&](const test::WatchedCall& call) {
            const bool isBackup = test::textAt(call.arguments[1]) == backupPath;
            return isBackup && ++asked <= failures ? ENOMEM : 0;
        },
        removeLegacyAnchor);
    return asked;
}

TEST_F(LegacyCleanupTest, NeverOverwritesABackupThatItCannotSee) {
    put(backupPath, "first com.tarnvale.firewall\n");
    put(pfConf, "second com.tarnvale.firewall\n");

    EXPECT_GT(cleanUpWithFailures(1'000), 0);

    EXPECT_EQ(contentOf(backupPath), "first com.tarnvale.firewall\n");
    EXPECT_EQ(contentOf(pfConf), "");
}

TEST_F(LegacyCleanupTest, BacksUpAlthoughItCannotSeeForAMomentThatThereIsNoBackup) {
    put(pfConf, "first com.tarnvale.firewall\n");

    EXPECT_GT(cleanUpWithFailures(1), 1);

    EXPECT_EQ(contentOf(backupPath), "first com.tarnvale.firewall\n");
    EXPECT_EQ(contentOf(pfConf), "");
}

TEST_F(LegacyCleanupTest, TakesALinkToABackupForOne) {
    put("/srv/backup", "first com.tarnvale.firewall\n");
    put(pfConf, "second com.tarnvale.firewall\n");
    std::filesystem::create_directories(supportFolder);
    std::filesystem::create_symlink("/srv/backup", backupPath);

    removeLegacyAnchor();

    EXPECT_EQ(contentOf(backupPath), "first com.tarnvale.firewall\n");
    EXPECT_EQ(contentOf(pfConf), "");
}

TEST_F(LegacyCleanupTest, ASecondCleanUpRewritesNothing) {
    put(pfConf, "anchor com.tarnvale.firewall\npass\n");
    removeLegacyAnchor();

    removeLegacyAnchor();

    EXPECT_THAT(logMessages(), ElementsAre(cleanedUp));
}

TEST_F(LegacyCleanupTest, KeepsModeOwnerAndGroupOfPfConf) {
    TARNVALE_NEEDS(owners);
    put(pfConf, "anchor com.tarnvale.firewall\n");
    ASSERT_EQ(::chown(pfConf, 7, 9), 0);
    ASSERT_EQ(::chmod(pfConf, 0640), 0);
    ::umask(077);

    removeLegacyAnchor();

    struct stat info {};
    ASSERT_EQ(::stat(pfConf, &info), 0);
    EXPECT_EQ(modeOf(pfConf), 0640U);
    EXPECT_EQ(info.st_uid, 7U);
    EXPECT_EQ(info.st_gid, 9U);
    EXPECT_EQ(modeOf(backupPath), 0640U);
}

TEST_F(LegacyCleanupTest, RewritesNothingThatIsNoText) {
    const std::string bytes = "anchor com.tarnvale.firewall\n\xFF\n";
    put(pfConf, bytes);

    removeLegacyAnchor();

    EXPECT_EQ(contentOf(pfConf), bytes);
    EXPECT_FALSE(exists(backupPath));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(LegacyCleanupTest, DropsAByteOrderMarkFromWhatItWrites) {
    put(pfConf, "\xEF\xBB\xBFpass\nanchor com.tarnvale.firewall\n");

    removeLegacyAnchor();

    EXPECT_EQ(contentOf(pfConf), "pass\n");
}

TEST_F(LegacyCleanupTest, AFolderInPfConfsPlaceIsLeftAlone) {
    std::filesystem::create_directories(pfConf);

    removeLegacyAnchor();

    EXPECT_TRUE(std::filesystem::is_directory(pfConf));
}

TEST_F(LegacyCleanupTest, CleansUpAlthoughTheBackupFails) {
    put(pfConf, "anchor com.tarnvale.firewall\n");
    put(supportFolder, "in the way");

    removeLegacyAnchor();

    EXPECT_EQ(contentOf(pfConf), "");
    EXPECT_THAT(logMessages(), ElementsAre(cleanedUp));
}

TEST_F(LegacyCleanupTest, LogsTheAttemptAlthoughTheFileCantBeWritten) {
    TARNVALE_NEEDS(mounts);
    put("/etc/frozen/pf.conf", "anchor com.tarnvale.firewall\n");
    put(pfConf, "");
    ASSERT_EQ(::mount("/etc/frozen/pf.conf", pfConf, nullptr, MS_BIND, nullptr), 0);

    removeLegacyAnchor();

    EXPECT_EQ(contentOf(pfConf), "anchor com.tarnvale.firewall\n");
    EXPECT_THAT(logMessages(), ElementsAre(cleanedUp));
}

}  // namespace
}  // namespace tarnvale::HelperFirewall
