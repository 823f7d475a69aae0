// SPDX-License-Identifier: MIT
//
// Authorization by a Mac's users, with every call that it takes and every call that can fail.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/service/CallerAuthorization.h"
#include "tests/macos/standin/StandIn.h"
#include "tests/support/FakeTransport.h"
#include "tests/support/HelperFiles.h"

namespace tarnvale {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::Optional;

class MacAuthorizationTest : public test::OnAMac {
protected:
    MacAuthorizationTest() {
        std::filesystem::remove(test::logPath);
        mac.members = {{80, {501}}};
        mac.console = {.name = u"eva", .uid = 502};
    }

    /// Whether the user may make a change right now.
    bool isAllowed(uid_t uid, bool adminOnly) {
        mac.calls.clear();
        transport.caller = uid;
        return authorizeCaller(transport, *users, adminOnly, "applyFirewall") == uid;
    }

    test::FakeTransport transport;
    const std::unique_ptr<platform::Users> users = platform::makeUsers();
};

TEST_F(MacAuthorizationTest, AllowsRootWithoutALookup) {
    EXPECT_TRUE(isAllowed(0, true));

    EXPECT_THAT(mac.calls, IsEmpty());
}

TEST_F(MacAuthorizationTest, AllowsAnAdministratorEverything) {
    EXPECT_TRUE(isAllowed(501, true));
    EXPECT_TRUE(isAllowed(501, false));

    EXPECT_THAT(
        mac.calls, ElementsAre("mbr_uid_to_uuid", "mbr_gid_to_uuid", "mbr_check_membership"));
}

TEST_F(MacAuthorizationTest, AllowsTheUserAtTheConsoleAllButWhatIsForAdministrators) {
    EXPECT_TRUE(isAllowed(502, false));
    EXPECT_FALSE(isAllowed(502, true));

    EXPECT_THAT(
        test::logMessages(),
        ElementsAre("Refused applyFirewall for uid 502: not an administrator."));
}

TEST_F(MacAuthorizationTest, RefusesAnybodyElse) {
    EXPECT_FALSE(isAllowed(503, false));

    EXPECT_THAT(
        test::logMessages(),
        ElementsAre(
            "Refused applyFirewall for uid 503: not an administrator or the console user."));
}

TEST_F(MacAuthorizationTest, TakesNobodyForTheConsoleUserWhileTheLoginWindowShows) {
    mac.console = {.name = u"loginwindow", .uid = 502};

    EXPECT_FALSE(isAllowed(502, false));
    EXPECT_THAT(consoleUserID(*users), Eq(std::nullopt));
}

TEST_F(MacAuthorizationTest, TakesNobodyForTheConsoleUserWhoseIDIsNotKnown) {
    mac.console = {.name = u"eva", .uid = std::nullopt};

    EXPECT_FALSE(isAllowed(502, false));
    EXPECT_THAT(consoleUserID(*users), Optional(static_cast<uid_t>(-1)))
        << "somebody is at the console, though no caller is";
}

TEST_F(MacAuthorizationTest, RefusesAnAdministratorWhenALookupFails) {
    for (const std::size_t call : {0U, 1U, 2U}) {
        mac.failingCall = call;
        EXPECT_FALSE(isAllowed(501, true)) << call;
        EXPECT_FALSE(isAllowed(501, false)) << call;
    }
}

TEST_F(MacAuthorizationTest, RefusesTheUserAtTheConsoleWhenTheConsoleIsNotKnown) {
    mac.failing = {"SCDynamicStoreCopyConsoleUser"};

    EXPECT_FALSE(isAllowed(502, false));
}

TEST_F(MacAuthorizationTest, AllowsTheUserAtTheConsoleWhoseMembershipIsNotKnown) {
    for (const std::size_t call : {0U, 1U, 2U}) {
        mac.failingCall = call;
        EXPECT_TRUE(isAllowed(502, false)) << call;
        EXPECT_FALSE(isAllowed(502, true)) << call;
    }
}

}  // namespace
}  // namespace tarnvale
