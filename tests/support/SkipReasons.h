// SPDX-License-Identifier: MIT
//
// Why a test was skipped, in the one form that scripts/test collects: a line "skipped: REASON".
// ctest itself drops what a skipped test prints.

#pragma once

#include <optional>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/PrivateRoot.h"

namespace tarnvale::test {

/// The status of a test program that ctest takes for skipped.
inline constexpr int skippedStatus = 77;

void printSkipReason(std::string_view reason);

/// Has every skipped test of this program print its reason.
void printSkipReasons();

}  // namespace tarnvale::test

/// Skips a test, or in SetUp all tests of a fixture, where its private root lacks an ability.
#define TARNVALE_NEEDS(ability)                                                               \
    do {                                                                                      \
        if (const auto lack = ::tarnvale::test::lackOf(::tarnvale::test::Ability::ability)) { \
            GTEST_SKIP() << *lack;                                                            \
        }                                                                                     \
    } while (false)
