// SPDX-License-Identifier: MIT
//
// The VLAN requests while the helper can have no memory. `scripts/reliability memory` leaves these
// paths out where the kernel has no 802.1Q.

#include <algorithm>
#include <iostream>
#include <memory>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/reliability/MemorySweep.h"
#include "tests/reliability/Paths.h"
#include "tests/vlan/Machine.h"

namespace tarnvale::test {
namespace {

using testing::Gt;
using testing::IsEmpty;

class VLANMemoryTest : public testing::Test {
protected:
    VLANMemoryTest() { enterMachine(); }

    /// Sweeps the path and says how many points it has.
    void expectNoViolation(
        std::string_view path, std::string_view shortage, const Points& points = {}) {
        if (!sweeper_) {
            sweeper_ = std::make_unique<MemorySweep>();
        }
        const auto outcome = sweeper_->run(
            pathNamed(path), *std::ranges::find(allShortages(), shortage, &Shortage::name), points);
        std::cout << path << ' ' << shortage << ": " << outcome.points << " points\n";
        EXPECT_THAT(outcome.violations, IsEmpty());
        EXPECT_THAT(outcome.points, Gt(0U));
    }

private:
    std::unique_ptr<MemorySweep> sweeper_;
};

TEST_F(VLANMemoryTest, ARequestLeavesAVLANWholeOrUndone) {
    expectNoViolation("vlan-create", "five", {.first = 34, .last = 62, .step = 4});
    expectNoViolation("vlan-delete", "three", {.first = 5, .step = 12});
}

/// The whole of it takes some minutes.
TEST_F(VLANMemoryTest, DISABLED_ARequestLeavesAVLANWholeOrUndoneAtEachPoint) {
    for (const char* const path : {"vlan-create", "vlan-delete"}) {
        for (const char* const shortage : {"once", "three", "five", "moment"}) {
            expectNoViolation(path, shortage);
        }
    }
}

}  // namespace
}  // namespace tarnvale::test
