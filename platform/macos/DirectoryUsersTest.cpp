// SPDX-License-Identifier: MIT

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Users.h"
#include "tests/macos/standin/StandIn.h"

namespace tarnvale::platform {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::Optional;

class DirectoryUsersTest : public test::OnAMac {
protected:
    DirectoryUsersTest() { mac.members = {{80, {501}}, {20, {501, 502}}}; }

    const std::unique_ptr<Users> users = makeUsers();
};

TEST_F(DirectoryUsersTest, KnowsTheMembersOfAGroup) {
    EXPECT_TRUE(users->isMember(501, 80));
    EXPECT_TRUE(users->isMember(502, 20));
    EXPECT_FALSE(users->isMember(502, 80));
}

TEST_F(DirectoryUsersTest, AsksForTheUserTheGroupAndTheMembership) {
    users->isMember(501, 80);

    EXPECT_THAT(
        mac.calls, ElementsAre("mbr_uid_to_uuid", "mbr_gid_to_uuid", "mbr_check_membership"));
}

TEST_F(DirectoryUsersTest, HasNoMembersInAGroupThatIsNotThere) {
    EXPECT_FALSE(users->isMember(501, 81));
}

TEST_F(DirectoryUsersTest, TakesAFailedCallForANo) {
    for (const std::size_t call : {0U, 1U, 2U}) {
        mac.calls.clear();
        mac.failingCall = call;

        EXPECT_FALSE(users->isMember(501, 80));
        EXPECT_EQ(mac.calls.size(), call + 1) << "nothing is asked after a failure";
    }
}

TEST_F(DirectoryUsersTest, NamesTheUserAtTheConsole) {
    mac.console = {.name = u"ada", .uid = 501};

    EXPECT_THAT(users->consoleUser(), Optional(ConsoleUser{.name = "ada", .uid = 501}));
}

TEST_F(DirectoryUsersTest, NamesTheLoginWindow) {
    mac.console = {.name = u"loginwindow", .uid = 0};

    EXPECT_THAT(users->consoleUser(), Optional(ConsoleUser{.name = "loginwindow", .uid = 0}));
}

TEST_F(DirectoryUsersTest, KnowsWhenNobodyHasTheConsole) {
    EXPECT_THAT(users->consoleUser(), Eq(std::nullopt));

    mac.console = {.name = u"ada", .uid = 501};
    mac.failing = {"SCDynamicStoreCopyConsoleUser"};
    EXPECT_THAT(users->consoleUser(), Eq(std::nullopt));
}

TEST_F(DirectoryUsersTest, TakesAConsoleUserWithoutAnIDForNobodyWhoCalls) {
    mac.console = {.name = u"ada", .uid = std::nullopt};

    EXPECT_THAT(
        users->consoleUser(), Optional(ConsoleUser{.name = "ada", .uid = static_cast<uid_t>(-1)}));
}

TEST_F(DirectoryUsersTest, KeepsAConsoleUserWhoseNameIsNoText) {
    mac.console = {.name = u"ada\xD800", .uid = 501};
    EXPECT_THAT(users->consoleUser(), Optional(ConsoleUser{.name = "", .uid = 501}));

    mac.console = {.name = u"ada", .uid = 501};
    mac.failing = {"CFStringGetBytes"};
    EXPECT_THAT(users->consoleUser(), Optional(ConsoleUser{.name = "", .uid = 501}));
}

}  // namespace
}  // namespace tarnvale::platform
