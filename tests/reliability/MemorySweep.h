// SPDX-License-Identifier: MIT
//
// Lets the helper's allocations fail at every point of a path in turn.

#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/reliability/AllocationFaults.h"
#include "tests/reliability/Sweep.h"

namespace tarnvale::test {

/// Which allocations fail, from the point on.
struct Shortage {
    const char* name = "";
    std::uint64_t count = 1;
    std::optional<std::chrono::milliseconds> within{};
    bool outlastsRequest = false;  ///< until `within` is over, others try as well
};

const std::vector<Shortage>& allShortages();

/// A point is the number of an allocation.
class MemorySweep : public Sweep {
public:
    /// The points are the allocations of undisturbed runs.
    Outcome run(const Path& path, const Shortage& shortage, const Points& points);

private:
    std::unique_ptr<Program> startHelper(const std::vector<std::string>& commandLine) override;
    void endDisturbance() override { faults_.end(); }
    std::uint64_t allocationsOf(const Path& path, const Shortage& shortage);
    bool disturb(const Path& path, const Shortage& shortage, std::uint64_t number);

    AllocationFaults faults_{"TarnvaleAdminHelper"};
};

}  // namespace tarnvale::test
