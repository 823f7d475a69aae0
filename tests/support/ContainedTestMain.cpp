// SPDX-License-Identifier: MIT
//
// The entry of test programs that touch nothing outside themselves: they run as whoever starts
// them, wherever that is.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/SkipReasons.h"

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    tarnvale::test::printSkipReasons();
    return RUN_ALL_TESTS();
}
