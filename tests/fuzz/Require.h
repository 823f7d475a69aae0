// SPDX-License-Identifier: MIT
//
// What a fuzz target says of its findings.

#pragma once

#include <cstdlib>

namespace tarnvale::test {

/// Ends the process by a signal, which libFuzzer takes for a finding, unless the condition holds.
inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace tarnvale::test
