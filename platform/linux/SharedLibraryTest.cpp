// SPDX-License-Identifier: MIT

#include "platform/linux/SharedLibrary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::platform {
namespace {

using testing::ThrowsMessage;

TEST(SharedLibraryTest, FindsAFunction) {
    const SharedLibrary library("libm.so.6");
    double (*roundedDown)(double) = nullptr;

    library.find("floor", roundedDown);

    EXPECT_EQ(roundedDown(2.5), 2);
}

TEST(SharedLibraryTest, NamesWhatIsMissing) {
    EXPECT_THAT(
        [] { SharedLibrary("libabsent.so.0"); },
        ThrowsMessage<SharedLibraryError>("Could not load libabsent.so.0."));
    EXPECT_THAT(
        [] {
            double (*function)(double) = nullptr;
            SharedLibrary("libm.so.6").find("absent", function);
        },
        ThrowsMessage<SharedLibraryError>("libm.so.6 has no absent."));
}

}  // namespace
}  // namespace tarnvale::platform
