// SPDX-License-Identifier: MIT
//
// The service while it can have no memory: a sample of what `scripts/reliability memory` sweeps.

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/reliability/MemorySweep.h"
#include "tests/reliability/Paths.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using testing::Gt;
using testing::IsEmpty;

template <typename Named>
const Named& named(std::string_view name, const std::vector<Named>& all) {
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Named& one) { return one.name == name; });
    if (found == all.end()) {
        throw std::invalid_argument("no such name");
    }
    return *found;
}

class MemoryTest : public testing::Test {
protected:
    void SetUp() override { TARNVALE_NEEDS(interfaces); }
};

/// Returns how often the helper ended itself, which it may.
std::uint64_t expectNoViolation(const char* path, const char* shortage, const Points& points) {
    static MemorySweep sweeper;
    const auto outcome =
        sweeper.run(named(path, allPaths()), named(shortage, allShortages()), points);
    EXPECT_THAT(outcome.violations, IsEmpty());
    EXPECT_THAT(outcome.points, Gt(0U)) << path << " has no such allocation any more";
    return outcome.restarts;
}

TEST_F(MemoryTest, AFirstCheckWithoutMemoryLocksNobodyOut) {
    const auto restarts =
        expectNoViolation("first-connection", "once", {.first = 20, .last = 260, .step = 5});

    EXPECT_THAT(restarts, Gt(0U)) << "the library's own set-up lies elsewhere by now";
}

TEST_F(MemoryTest, ARequestGetsItsReplyOrTheEndOfItsConnection) {
    expectNoViolation("apply-new", "five", {.first = 70});
    // Here nothing can be sent at any point, whatever else the machine does.
    expectNoViolation("version", "moment", {});
}

TEST_F(MemoryTest, AConnectionThatGetsNoneEndsAlone) {
    expectNoViolation("connection", "once", {});
    expectNoViolation("connection", "moment", {.first = 20, .last = 60});
}

TEST_F(MemoryTest, ACallThatLibsystemdAnswersGetsItsReplyOrTheEndOfItsConnection) {
    expectNoViolation("misfit", "once", {.step = 9});
    expectNoViolation("misfit", "moment", {.first = 48, .last = 80});
}

TEST_F(MemoryTest, AHelperThatHadNoneForAMomentServes) {
    expectNoViolation("apply-changed", "moment", {.step = 9});
    expectNoViolation("remove-last", "moment", {.step = 9});
    expectNoViolation("report", "moment", {.step = 9});
    expectNoViolation("remove-one", "five", {.step = 9});
    expectNoViolation("links-on", "three", {.step = 7});
    expectNoViolation("links-off", "three", {.step = 7});
}

TEST_F(MemoryTest, AHelperThatHasNoneAsItStartsServesOrIsStartedAgain) {
    expectNoViolation("start", "three", {.step = 9});
}

}  // namespace
}  // namespace tarnvale::test
