// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/LocalAccounts.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/HelperFiles.h"

namespace tarnvale::platform {
namespace {

class LocalAccountsTest : public testing::Test {
protected:
    void SetUp() override {
        test::put(
            "/etc/passwd",
            "root:x:0:0:root:/root:/bin/sh\nada:x:501:20::/home/ada:\neve:x:503:20::/home/eve:\n"
            "chief:x:504:80::/:\nbroken\nodd:x:number:80::/:\n");
        test::put("/etc/group", "root:x:0:\nstaff:x:20:eve\nadmin:x:80:ada,nobody-known\n");
        test::put(
            "/etc/subuid",
            "eve:100000:65536\n501:200000:1000\nfar-away:300000:10\nroot:600000:10\nbroken:x:"
            "5\nada:400000\n");
    }

    LocalAccounts accounts;
};

TEST_F(LocalAccountsTest, ASubordinateUserIsHisOwners) {
    EXPECT_EQ(accounts.ownerOf(100'000), 503U);
    EXPECT_EQ(accounts.ownerOf(165'535), 503U);
    EXPECT_EQ(accounts.ownerOf(200'999), 501U) << "who goes by number";
    EXPECT_EQ(accounts.ownerOf(300'009), 300'000U) << "one nobody, not ten";
    EXPECT_EQ(accounts.ownerOf(600'009), 600'000U) << "not root";
}

TEST_F(LocalAccountsTest, AnybodyElseIsHisOwn) {
    for (const uid_t user : {0U, 503U, 99'999U, 165'536U, 400'000U, 4'294'967'294U}) {
        EXPECT_EQ(accounts.ownerOf(user), user);
    }
}

TEST_F(LocalAccountsTest, AnAdministratorIsWhomTheFilesPutIntoTheGroup) {
    EXPECT_TRUE(accounts.isAdministrator(501)) << "a member";
    EXPECT_TRUE(accounts.isAdministrator(504)) << "by his first group";

    EXPECT_FALSE(accounts.isAdministrator(503));
    EXPECT_FALSE(accounts.isAdministrator(505));
}

TEST_F(LocalAccountsTest, AChangeOfAFileCounts) {
    EXPECT_EQ(accounts.ownerOf(500'000), 500'000U);

    test::put("/etc/subuid", "eve:500000:1\n");
    EXPECT_EQ(accounts.ownerOf(500'000), 503U);
    EXPECT_EQ(accounts.ownerOf(100'000), 100'000U);

    ::unlink("/etc/subuid");
    EXPECT_EQ(accounts.ownerOf(500'000), 500'000U);
}

TEST_F(LocalAccountsTest, AFileThatCannotBeReadIsReadLater) {
    EXPECT_TRUE(accounts.isAdministrator(501));
    test::put("/etc/subuid", "eve:500000:1\n");
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);

    const bool wasAdministrator = accounts.isAdministrator(501);
    const uid_t owner = accounts.ownerOf(100'000);
    LocalAccounts others;
    const bool isKnown = others.isAdministrator(501);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);

    EXPECT_TRUE(wasAdministrator);
    EXPECT_EQ(owner, 503U) << "as it was known";
    EXPECT_FALSE(isKnown);
    EXPECT_TRUE(others.isAdministrator(501));
    EXPECT_EQ(accounts.ownerOf(100'000), 100'000U);
    EXPECT_EQ(accounts.ownerOf(500'000), 503U);
}

TEST_F(LocalAccountsTest, AFileThatCannotBeLookedAtIsNotAMissingOne) {
    EXPECT_TRUE(accounts.isAdministrator(501));
    ::unlink("/etc/group");
    ASSERT_EQ(::symlink("group", "/etc/group"), 0) << "leads to itself";

    EXPECT_TRUE(accounts.isAdministrator(501)) << "as it was known";

    ::unlink("/etc/group");
    EXPECT_FALSE(accounts.isAdministrator(501));
}

TEST_F(LocalAccountsTest, AFileThatCanNeverBeReadLeavesTheOthers) {
    EXPECT_EQ(accounts.ownerOf(100'000), 503U);
    ::unlink("/etc/subuid");
    ASSERT_EQ(::mkdir("/etc/subuid", 0755), 0);
    test::put("/etc/group", "root:x:0:\nadmin:x:80:eve\n");
    LocalAccounts others;

    for (LocalAccounts* const asked : {&accounts, &others}) {
        EXPECT_TRUE(asked->isAdministrator(503));
        EXPECT_FALSE(asked->isAdministrator(501));
        EXPECT_TRUE(asked->isAdministrator(504));
    }
    EXPECT_EQ(accounts.ownerOf(100'000), 503U) << "as it was known";
    EXPECT_EQ(others.ownerOf(100'000), 100'000U);

    ::rmdir("/etc/subuid");
    EXPECT_EQ(accounts.ownerOf(100'000), 100'000U);
}

}  // namespace
}  // namespace tarnvale::platform
