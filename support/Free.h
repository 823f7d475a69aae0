// SPDX-License-Identifier: MIT
//
// Ownership of memory that C functions such as realpath hand over for free().

#pragma once

#include <cstdlib>

namespace tarnvale::support {

/// The deleter: `std::unique_ptr<char, Free>`.
struct Free {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

}  // namespace tarnvale::support
