// SPDX-License-Identifier: MIT
//
// Every test program's entry: it moves itself into a private root, then runs its tests. Where the
// kernel gives none, the program is skipped with the reason, by the exit status that ctest knows.

#include <iostream>

#include <gtest/gtest.h>

#include "tests/support/PrivateRoot.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        if (const auto refusal = tarnvale::test::enterPrivateRoot()) {
            std::cout << "[  SKIPPED ] " << *refusal << '\n';
            return 77;
        }
    }
    return RUN_ALL_TESTS();
}
