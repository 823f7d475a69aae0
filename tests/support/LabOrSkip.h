// SPDX-License-Identifier: MIT
//
// A network lab for a test, which is skipped where the machine cannot have one.

#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "tests/support/NetworkLab.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {

/// Builds the lab; where that cannot be, skips the test and leaves none. For a fixture's `SetUp`.
inline void buildOrSkip(std::unique_ptr<NetworkLab>& lab) {
    TARNVALE_NEEDS(interfaces);
    try {
        lab = std::make_unique<NetworkLab>();
    } catch (const LabUnavailable& reason) {
        GTEST_SKIP() << reason.what();
    }
}

}  // namespace tarnvale::test
