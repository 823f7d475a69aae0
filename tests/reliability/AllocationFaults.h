// SPDX-License-Identifier: MIT
//
// Lets allocations of a program fail that was started for it.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/reliability/FailedAllocations.h"

namespace tarnvale::test {

/// Which allocations fail, counted from when the program is told.
struct ChosenAllocations {
    std::uint64_t first = 1;
    std::uint64_t count = 1;
    std::optional<std::chrono::milliseconds> within{};  ///< none fails after that
};

/// Concerns the programs of one name that are started with its environment. Nothing fails until
/// `begin`.
class AllocationFaults {
public:
    /// Makes the file that is shared with the program in /run. Throws `std::system_error`.
    explicit AllocationFaults(std::string_view program);
    AllocationFaults(const AllocationFaults&) = delete;
    AllocationFaults& operator=(const AllocationFaults&) = delete;
    ~AllocationFaults();

    /// For the program.
    std::vector<std::string> environment() const;

    void begin(const ChosenAllocations& chosen);

    /// From here on nothing fails.
    void end();

    /// How many there were between `begin` and `end`, failed ones included.
    std::uint64_t made() const { return shared_->made; }

    /// Whether the first of the chosen ones was asked for, and failed.
    bool wasMet() const { return shared_->wasMet; }

private:
    std::string path_;
    FailedAllocations* shared_;
};

}  // namespace tarnvale::test
