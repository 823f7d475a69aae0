// SPDX-License-Identifier: MIT
//
// The helper at work, as most tests need it: one that writes no word that they don't expect.

#pragma once

#include <string>

#include <gtest/gtest.h>

#include "tests/support/ServiceLab.h"

namespace tarnvale::test {

/// The test fails when the helper has written anything else than `expected`: what it says of
/// missing roots. Only a sanitizer would.
class Service : public RunningHelper {
public:
    using RunningHelper::RunningHelper;

    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() {
        kill();
        EXPECT_EQ(written(), expected);
    }

    std::string expected;
};

}  // namespace tarnvale::test
