// SPDX-License-Identifier: MIT
//
// Owns memory from C functions such as realpath, whose callers have to free() it.

#pragma once

#include <cstdlib>

namespace tarnvale::support {

/// The deleter: `std::unique_ptr<char, Free>`.
struct Free {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

}  // namespace tarnvale::support
