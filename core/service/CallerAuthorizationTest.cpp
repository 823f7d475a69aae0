// SPDX-License-Identifier: MIT

#include "core/service/CallerAuthorization.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/FakeUsers.h"

namespace tarnvale {
namespace {

using testing::Eq;
using testing::Optional;

class CallerAuthorizationTest : public testing::Test {
protected:
    test::FakeUsers users;
};

TEST_F(CallerAuthorizationTest, NamesTheUserAtTheConsole) {
    users.atConsole = {.name = "ada", .uid = 501};

    EXPECT_THAT(consoleUserID(users), Optional(501U));
}

TEST_F(CallerAuthorizationTest, TellsRootAtTheConsoleFromTheLoginWindow) {
    users.atConsole = {.name = "root", .uid = 0};
    EXPECT_THAT(consoleUserID(users), Optional(0U));

    users.atConsole = {.name = "loginwindow", .uid = 0};
    EXPECT_THAT(consoleUserID(users), Eq(std::nullopt));
}

TEST_F(CallerAuthorizationTest, TakesAConsoleUserWithoutANameForNobodyWhoCalls) {
    users.atConsole = {.name = "", .uid = 501};

    EXPECT_THAT(consoleUserID(users), Optional(static_cast<uid_t>(-1)));
}

TEST_F(CallerAuthorizationTest, HasNoConsoleUserWhenNobodyIsThere) {
    EXPECT_THAT(consoleUserID(users), Eq(std::nullopt));
}

}  // namespace
}  // namespace tarnvale
