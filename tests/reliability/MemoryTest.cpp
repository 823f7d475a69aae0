// SPDX-License-Identifier: MIT
//
// The service while it can have no memory: a sample of what `scripts/reliability memory` sweeps.

#include <algorithm>
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

Outcome sweep(const char* path, const char* shortage, const Points& points) {
    static MemorySweep sweeper;
    return sweeper.run(named(path, allPaths()), named(shortage, allShortages()), points);
}

TEST_F(MemoryTest, AFirstCheckWithoutMemoryLocksNobodyOut) {
    const auto outcome = sweep("first-connection", "once", {.first = 20, .last = 260, .step = 5});

    EXPECT_THAT(outcome.violations, IsEmpty());
    EXPECT_THAT(outcome.restarts, Gt(0U)) << "the library's own set-up lies elsewhere by now";
}

TEST_F(MemoryTest, ARequestGetsItsReplyOrTheEndOfItsConnection) {
    EXPECT_THAT(sweep("apply-new", "five", {.first = 70}).violations, IsEmpty());
    // Here nothing can be sent at any point, whatever else the machine does.
    EXPECT_THAT(sweep("version", "moment", {}).violations, IsEmpty());
}

TEST_F(MemoryTest, AConnectionThatGetsNoneEndsAlone) {
    EXPECT_THAT(sweep("connection", "once", {}).violations, IsEmpty());
    EXPECT_THAT(sweep("connection", "moment", {.first = 20, .last = 60}).violations, IsEmpty());
}

TEST_F(MemoryTest, ACallThatLibsystemdAnswersGetsItsReplyOrTheEndOfItsConnection) {
    EXPECT_THAT(sweep("misfit", "once", {.step = 9}).violations, IsEmpty());
    EXPECT_THAT(sweep("misfit", "moment", {.first = 48, .last = 80}).violations, IsEmpty());
}

TEST_F(MemoryTest, AHelperThatHadNoneForAMomentServes) {
    EXPECT_THAT(sweep("apply-changed", "moment", {.step = 9}).violations, IsEmpty());
    EXPECT_THAT(sweep("remove-last", "moment", {.step = 9}).violations, IsEmpty());
    EXPECT_THAT(sweep("report", "moment", {.step = 9}).violations, IsEmpty());
    EXPECT_THAT(sweep("remove-one", "five", {.step = 9}).violations, IsEmpty());
    EXPECT_THAT(sweep("links-on", "three", {.step = 7}).violations, IsEmpty());
    EXPECT_THAT(sweep("links-off", "three", {.step = 7}).violations, IsEmpty());
}

TEST_F(MemoryTest, AHelperThatHasNoneAsItStartsServesOrIsStartedAgain) {
    EXPECT_THAT(sweep("start", "three", {.step = 9}).violations, IsEmpty());
}

}  // namespace
}  // namespace tarnvale::test
