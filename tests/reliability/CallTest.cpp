// SPDX-License-Identifier: MIT
//
// The service while it is killed, and while the system refuses it a call: samples of what
// `scripts/reliability kill` and `scripts/reliability errno` sweep.

#include <optional>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/reliability/CallSweep.h"
#include "tests/reliability/Paths.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using testing::Gt;
using testing::IsEmpty;

class CallTest : public testing::Test {
protected:
    void SetUp() override {
        TARNVALE_NEEDS(interfaces);
        sweep_.emplace(Sweep::Client::fresh);
    }

    /// Disturbs the path at the calls of these names, or at all. So what a test is meant for is
    /// among the points, and it still takes seconds.
    void expectNoViolation(
        const char* path,
        const CallDeed& deed,
        const std::set<std::string>& calls,
        const Points& points = {}) {
        const auto outcome =
            sweep_->run(pathNamed(path), calls.empty() ? deed : restrictedTo(calls, deed), points);
        EXPECT_THAT(outcome.violations, IsEmpty());
        EXPECT_THAT(outcome.points, Gt(0U)) << "the path has no such call any more";
    }

private:
    std::optional<CallSweep> sweep_;
};

class KillTest : public CallTest {
protected:
    void expectNoViolation(
        const char* path,
        const char* death,
        const std::set<std::string>& calls,
        const Points& points = {}) {
        CallTest::expectNoViolation(path, deathNamed(death), calls, points);
    }
};

class ErrnoTest : public CallTest {
protected:
    void expectNoViolation(
        const char* path,
        const char* error,
        const std::set<std::string>& calls = {},
        const Points& points = {}) {
        CallTest::expectNoViolation(path, refusalNamed(error), calls, points);
    }
};

TEST_F(KillTest, AnApplyIsDoneOrUndone) {
    expectNoViolation("apply-changed", "service", {"write", "fsync", "renameat"}, {.step = 2});
    expectNoViolation("apply-damaged", "service", {"linkat", "link", "renameat"});
}

TEST_F(KillTest, ACleanUpLosesNothing) {
    expectNoViolation("clean-up", "service", {"fchown", "rename", "renameat", "unlinkat"});
}

TEST_F(KillTest, ASuccessorTakesTheSocketOver) {
    expectNoViolation("start", "service", {"bind", "chmod", "fchmodat", "listen", "rename"});
    expectNoViolation("start", "service", {}, {.first = 3, .step = 60});
}

TEST_F(KillTest, AnApplyOutlivesItsPfctl) {
    expectNoViolation("apply-fresh", "child", {"execve", "rename", "sendto", "sendmsg"});
}

TEST_F(ErrnoTest, AnInterruptedCallIsRepeated) {
    expectNoViolation("apply-fresh", "EINTR", {"flock", "fsync", "poll", "wait4", "write"});
}

TEST_F(ErrnoTest, ShortReadsAndWritesGoOn) {
    expectNoViolation("apply-new", "short", {"read", "write"});
}

TEST_F(ErrnoTest, WhatTheDiskRefusesIsUndone) {
    expectNoViolation("apply-fresh", "ENOSPC");
}

TEST_F(ErrnoTest, ALostAnswerOfTheKernelLosesNoRules) {
    expectNoViolation("remove-one", "ENOMEM", {"recvmsg"});
}

TEST_F(ErrnoTest, AStoreThatCannotBeReadIsKeptThoughItCannotBeSeenOnce) {
    expectNoViolation("remove-damaged", "EIO", {"lstat", "newfstatat"});
}

TEST_F(ErrnoTest, OneDescriptorTooFewIsOneFailure) {
    expectNoViolation("remove-one", "EMFILE", {}, {.step = 4});
}

}  // namespace
}  // namespace tarnvale::test
