// SPDX-License-Identifier: MIT

#include "core/base/HelperVersion.h"

#include <gtest/gtest.h>

#include "platform/Bundle.h"

namespace tarnvale {
namespace {

TEST(HelperVersionTest, IsWhatTheProgramCarriesOrSeven) {
    const auto carried = platform::bundleShortVersion();

    EXPECT_EQ(helperVersionString(), carried ? *carried : "7");
    EXPECT_NE(helperVersionString(), "");
}

}  // namespace
}  // namespace tarnvale
