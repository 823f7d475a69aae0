// SPDX-License-Identifier: MIT
//
// What a test and a program under test share, so that the test decides which of the program's
// allocations fail. The program is started with the library `failed-allocations` preloaded, which
// stands in front of the C library's allocator: operator new, libsystemd, OpenSSL and the C library
// itself all go through it.

#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace tarnvale::test {

/// The environment variable that names the shared file.
inline constexpr const char* failedAllocationsVariable = "TARNVALE_FAILED_ALLOCATIONS";

/// The shared file's content. All zero, nothing fails.
struct FailedAllocations {
    std::array<char, 32> program;      ///< only a program of this name is concerned; never changes
    std::atomic<std::uint64_t> made;   ///< allocations, while `first` isn't 0
    std::atomic<std::uint64_t> first;  ///< the number, from 1, of the first that fails; 0 for none
    std::atomic<std::uint64_t> last;   ///< the number of the last that fails
    std::atomic<std::int64_t> until;   ///< on the monotonic clock, in nanoseconds; 0 for ever
    std::atomic<bool> wasMet;          ///< the first was asked for, and failed
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "two programs share them");

}  // namespace tarnvale::test
