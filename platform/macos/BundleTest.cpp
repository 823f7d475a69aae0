// SPDX-License-Identifier: MIT

#include "platform/Bundle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/macos/standin/StandIn.h"

namespace tarnvale::platform {
namespace {

using Information = test::StandIn::Information;
using testing::Eq;
using testing::Optional;

class BundleTest : public test::OnAMac {};

TEST_F(BundleTest, HasTheVersionOfTheInformationDictionary) {
    mac.information = Information{{"CFBundleVersion", "42"}, {"CFBundleShortVersionString", "1.4"}};

    EXPECT_THAT(bundleShortVersion(), Optional(Eq("1.4")));
}

TEST_F(BundleTest, HasAnEmptyVersionToo) {
    mac.information = Information{{"CFBundleShortVersionString", ""}};

    EXPECT_THAT(bundleShortVersion(), Optional(Eq("")));
}

TEST_F(BundleTest, HasNoVersionWithoutADictionary) {
    EXPECT_THAT(bundleShortVersion(), Eq(std::nullopt));
}

TEST_F(BundleTest, HasNoVersionWithoutTheKey) {
    mac.information = Information{{"CFBundleVersion", "42"}};

    EXPECT_THAT(bundleShortVersion(), Eq(std::nullopt));
}

TEST_F(BundleTest, HasNoVersionThatIsNoString) {
    mac.information = Information{{"CFBundleShortVersionString", std::int64_t{2}}};

    EXPECT_THAT(bundleShortVersion(), Eq(std::nullopt));
}

TEST_F(BundleTest, HasNoVersionWhenACallFails) {
    mac.information = Information{{"CFBundleShortVersionString", "1.4"}};
    bundleShortVersion();
    const auto count = mac.calls.size();
    ASSERT_GE(count, 4U);

    for (std::size_t call = 0; call < count; ++call) {
        mac.calls.clear();
        mac.failingCall = call;

        EXPECT_THAT(bundleShortVersion(), Eq(std::nullopt)) << mac.calls.back();
        EXPECT_EQ(mac.calls.size(), call + 1) << "nothing is asked after a failure";
    }
}

}  // namespace
}  // namespace tarnvale::platform
