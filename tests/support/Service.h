// SPDX-License-Identifier: MIT
//
// The helper at work, as most tests need it: one that never writes a word.

#pragma once

#include <gtest/gtest.h>

#include "tests/support/ServiceLab.h"

namespace tarnvale::test {

/// The test fails when the helper has written anything. It never does; only a sanitizer would.
class Service : public RunningHelper {
public:
    using RunningHelper::RunningHelper;

    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() {
        kill();
        EXPECT_EQ(written(), "");
    }
};

}  // namespace tarnvale::test
