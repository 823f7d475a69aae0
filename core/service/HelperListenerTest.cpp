// SPDX-License-Identifier: MIT

#include "core/service/HelperListener.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/FakeCodeSigning.h"
#include "tests/support/FakeMainLoop.h"
#include "tests/support/FakeTransport.h"
#include "tests/support/HelperFiles.h"

namespace tarnvale {
namespace {

using namespace std::chrono_literals;
using test::FakeConnection;
using test::FakeMainLoop;
using test::logMessages;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr pid_t application = 100;
constexpr pid_t stranger = 200;

/// Stands in for the handlers, none of which is called here.
class NoHandlers final : public TarnvaleAdminHelperProtocol {
public:
    OptionalText helperVersion() override { return {}; }
    ResultReply applyFirewallWithPolicyData(std::string_view /*data*/) override { return {}; }
    OptionalText removeFirewall() override { return {}; }
    ResultReply firewallReport() override { return {}; }
    ResultReply createVLANWithName(
        std::string_view /*name*/, std::int64_t /*tag*/, std::string_view /*parent*/) override {
        return {};
    }
    OptionalText deleteVLANWithBsdName(std::string_view /*bsdName*/) override { return {}; }
    OptionalText installCLISymlink() override { return {}; }
    OptionalText removeCLISymlink() override { return {}; }
    OptionalText setTarnvaleResolverWithEnabled(bool /*enabled*/) override { return {}; }
    void shutdownForUpgrade(const std::function<void()>& /*reply*/) override {}
};

class HelperListenerTest : public testing::Test {
protected:
    HelperListenerTest() {
        codeSigning.peers[application].information = platform::SigningInformation{
            .teamIdentifier = "K7PD2QM4TZ", .identifier = "com.brackwen.tarnvale"};
        codeSigning.peers[stranger];
    }

    std::unique_ptr<FakeConnection> connect() {
        auto connection = std::make_unique<FakeConnection>(application, 501);
        EXPECT_TRUE(listener->shouldAcceptNewConnection(*connection));
        return connection;
    }

    /// Whether the next idle check, which comes after this time, ends the process.
    bool endsAfter(std::chrono::milliseconds time) {
        loop.time += time;
        try {
            listener->checkIdle();
            return false;
        } catch (const FakeMainLoop::Exit& exit) {
            EXPECT_EQ(exit.status, 0);
            return true;
        }
    }

    test::FakeCodeSigning codeSigning;
    ClientAdmission admission{codeSigning};
    test::FakeTransport transport;
    FakeMainLoop loop;
    std::shared_ptr<HelperListener> listener =
        std::make_shared<HelperListener>(transport, loop, admission);
    NoHandlers handlers;
};

TEST_F(HelperListenerTest, StartsTheTransportThenTheTimerThenTheMainLoop) {
    EXPECT_THROW(listener->start(handlers), FakeMainLoop::Running);

    EXPECT_EQ(transport.delegate, listener.get());
    EXPECT_EQ(transport.exported, &handlers);
    ASSERT_THAT(loop.repeated, SizeIs(1));
    EXPECT_EQ(loop.repeated[0].time, 30s);
    EXPECT_THAT(
        logMessages(), ElementsAre("Helper 7 listening on com.brackwen.tarnvale.adminhelper."));
}

TEST_F(HelperListenerTest, AdmitsAClientWithTheRequirementForItsMessages) {
    const auto connection = connect();

    EXPECT_EQ(connection->requirement, admission.clientRequirement());
    EXPECT_TRUE(connection->invalidationHandler);
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(HelperListenerTest, RejectsAStrangerAndConfiguresNothing) {
    FakeConnection connection(stranger, 502);

    EXPECT_FALSE(listener->shouldAcceptNewConnection(connection));

    EXPECT_EQ(connection.requirement, "");
    EXPECT_FALSE(connection.invalidationHandler);
    EXPECT_THAT(
        logMessages(),
        ElementsAre("Rejected XPC client pid=200 uid=502: not Tarnvale or its service signed by "
                    "K7PD2QM4TZ."));
}

TEST_F(HelperListenerTest, RejectsAClientWhoseMessagesCantBeChecked) {
    FakeConnection connection(application, 501);
    connection.refusesRequirement = true;

    EXPECT_FALSE(listener->shouldAcceptNewConnection(connection));

    EXPECT_FALSE(connection.invalidationHandler);
    EXPECT_TRUE(endsAfter(121s));
}

TEST_F(HelperListenerTest, EndsOnlyWhenMoreThanTheIdleLimitHasPassed) {
    EXPECT_FALSE(endsAfter(120s));
    EXPECT_THAT(logMessages(), IsEmpty());

    EXPECT_TRUE(endsAfter(1ms));
    EXPECT_THAT(
        logMessages(), ElementsAre("Idle; exiting. launchd will relaunch on the next request."));
}

TEST_F(HelperListenerTest, ASilentConnectionKeepsItAlive) {
    const auto connection = connect();
    EXPECT_FALSE(endsAfter(10min));

    connection->invalidationHandler();

    EXPECT_FALSE(endsAfter(120s));
    EXPECT_TRUE(endsAfter(30s));
}

TEST_F(HelperListenerTest, AnAdmissionUnderWayKeepsItAlive) {
    bool hasEnded = true;
    codeSigning.duringLookup = [&] { hasEnded = endsAfter(10min); };

    const auto admitted = connect();
    EXPECT_FALSE(hasEnded);
    admitted->invalidationHandler();
    FakeConnection rejected(stranger, 502);
    EXPECT_FALSE(listener->shouldAcceptNewConnection(rejected));
    EXPECT_FALSE(hasEnded);

    codeSigning.duringLookup = [] { throw platform::CheckOverdue(); };
    EXPECT_THROW(listener->shouldAcceptNewConnection(rejected), platform::CheckOverdue);
    EXPECT_TRUE(endsAfter(121s)) << "each of them is over";
}

TEST_F(HelperListenerTest, EndsOnlyOnceTheTransportTakesNoMoreConnections) {
    transport.mayRetire = false;
    EXPECT_FALSE(endsAfter(121s));
    EXPECT_THAT(logMessages(), IsEmpty());

    transport.mayRetire = true;
    EXPECT_TRUE(endsAfter(30s));
    EXPECT_TRUE(transport.isRetired);
}

TEST_F(HelperListenerTest, WaitsForTheLastOfSeveralConnections) {
    const auto first = connect();
    const auto second = connect();

    first->invalidationHandler();
    EXPECT_FALSE(endsAfter(10min));
    second->invalidationHandler();

    EXPECT_TRUE(endsAfter(121s));
}

TEST_F(HelperListenerTest, AnInvalidationTooManyLeavesTheCountAtZero) {
    const auto connection = connect();
    connection->invalidationHandler();
    connection->invalidationHandler();

    const auto another = connect();

    EXPECT_FALSE(endsAfter(10min));
}

TEST_F(HelperListenerTest, AConnectionThatEndsAtOnceIsNotCountedAfterwards) {
    FakeConnection connection(application, 501);
    connection.endsAtOnce = true;

    EXPECT_TRUE(listener->shouldAcceptNewConnection(connection));

    EXPECT_TRUE(endsAfter(121s));
}

TEST_F(HelperListenerTest, ARequestRestartsTheIdleClock) {
    loop.time += 100s;
    listener->touch();

    EXPECT_FALSE(endsAfter(120s));
    EXPECT_TRUE(endsAfter(1s));
}

TEST_F(HelperListenerTest, AnAdmissionRestartsTheIdleClock) {
    loop.time += 100s;
    connect()->invalidationHandler();

    EXPECT_FALSE(endsAfter(120s));
}

TEST_F(HelperListenerTest, ARejectionDoesNotRestartTheIdleClock) {
    loop.time += 100s;
    FakeConnection connection(stranger, 502);
    listener->shouldAcceptNewConnection(connection);

    EXPECT_TRUE(endsAfter(21s));
}

TEST_F(HelperListenerTest, TheTimerRunsTheIdleCheck) {
    EXPECT_THROW(listener->start(handlers), FakeMainLoop::Running);
    loop.time += 121s;

    EXPECT_THROW(loop.repeated[0].work(), FakeMainLoop::Exit);
}

TEST_F(HelperListenerTest, TimerAndConnectionsOutliveTheListener) {
    EXPECT_THROW(listener->start(handlers), FakeMainLoop::Running);
    const auto connection = connect();
    listener.reset();
    loop.time += 10min;

    loop.repeated[0].work();
    connection->invalidationHandler();
}

TEST_F(HelperListenerTest, ShutdownRepliesFirstAndEndsAMomentLater) {
    const auto connection = connect();
    loop.time += 100s;
    std::size_t delayedAtReply = 1;

    listener->shutdownForUpgrade([&] { delayedAtReply = loop.delayed.size(); });

    EXPECT_EQ(delayedAtReply, 0U);
    ASSERT_THAT(loop.delayed, SizeIs(1));
    EXPECT_EQ(loop.delayed[0].time, 300ms);
    EXPECT_THROW(loop.delayed[0].work(), FakeMainLoop::Exit);
    EXPECT_THAT(
        logMessages(),
        ElementsAre("Shutdown requested for upgrade; exiting so launchd re-execs the new "
                    "binary."));
}

TEST_F(HelperListenerTest, ShutdownEndsItAlthoughTheClientIsGone) {
    listener->shutdownForUpgrade([] { throw std::runtime_error("nobody to reply to"); });

    EXPECT_THAT(loop.delayed, SizeIs(1));
}

TEST_F(HelperListenerTest, ShutdownEndsItAlthoughMemoryIsShort) {
    loop.isOutOfMemory = true;
    int replies = 0;
    const auto begin = std::chrono::steady_clock::now();

    EXPECT_THROW(listener->shutdownForUpgrade([&] { ++replies; }), FakeMainLoop::Exit);

    EXPECT_EQ(replies, 1);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 300ms);
}

TEST_F(HelperListenerTest, ShutdownDoesNotRestartTheIdleClock) {
    loop.time += 100s;
    listener->shutdownForUpgrade([] {});

    EXPECT_TRUE(endsAfter(21s));
}

TEST_F(HelperListenerTest, CountsConnectionsOfManyThreads) {
    admission.clientRequirement();  // computed once, before the threads
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([this] {
            for (int round = 0; round < 200; ++round) {
                FakeConnection connection(application, 501);
                ASSERT_TRUE(listener->shouldAcceptNewConnection(connection));
                listener->touch();
                connection.invalidationHandler();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(endsAfter(121s));
}

}  // namespace
}  // namespace tarnvale
