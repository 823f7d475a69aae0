// SPDX-License-Identifier: MIT

#include "core/base/Administrators.h"

#include <gtest/gtest.h>

#include "tests/support/FakeUsers.h"

namespace tarnvale {
namespace {

class AdministratorsTest : public testing::Test {
protected:
    test::FakeUsers users;
};

TEST_F(AdministratorsTest, TakesRootForAnAdministratorWithoutALookup) {
    EXPECT_TRUE(isAdministrator(users, 0));
    EXPECT_EQ(users.lookups, 0);
}

TEST_F(AdministratorsTest, TakesTheMembersOfGroup80ForAdministrators) {
    users.members = {{80, {501}}, {20, {501, 502}}, {0, {503}}};

    EXPECT_TRUE(isAdministrator(users, 501));
    EXPECT_FALSE(isAdministrator(users, 502));
    EXPECT_FALSE(isAdministrator(users, 503));
}

}  // namespace
}  // namespace tarnvale
