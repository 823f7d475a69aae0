// SPDX-License-Identifier: MIT
//
// The transport and the client where a Mac can't be brought in a test: other users, programs that
// stop meeting the requirement, a helper that never replies. And nothing of theirs stays behind.

#import <Foundation/Foundation.h>

#include <array>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/HelperClient.h"
#include "platform/Transport.h"
#include "platform/macos/XPCProtocol.h"
#include "tests/macos/standin/XPC.h"
#include "tests/macos/standin/objc/Runtime.h"
#include "tests/support/AdmissionRequirements.h"
#include "tests/support/FakeCodeSigning.h"
#include "tests/support/FakeHelper.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;
using test::standin::settle;
using test::standin::XPC;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr const char* clientsRequirement = "the client is Tarnvale's";
class CountingDoorkeeper final : public TransportDelegate {
public:
    bool admits = true;
    std::mutex mutex;
    std::vector<Peer> peers;
    std::vector<uid_t> uids;
    int admitted = 0;
    int ended = 0;

    bool shouldAcceptNewConnection(NewConnection& connection) override {
        const std::lock_guard lock(mutex);
        peers.push_back(connection.peer());
        uids.push_back(connection.effectiveUserID());
        if (!admits || !connection.setCodeSigningRequirement(clientsRequirement)) {
            return false;
        }
        ++admitted;
        connection.setInvalidationHandler([this] {
            const std::lock_guard endLock(mutex);
            ++ended;
        });
        return true;
    }
};

class CallerHelper final : public test::FakeHelper {
public:
    explicit CallerHelper(const Transport& transport) : transport_(transport) {}

    /// Who asked for what, in order.
    std::vector<std::pair<uid_t, std::string>> calls() const {
        const std::lock_guard lock(mutex_);
        return calls_;
    }

    std::function<void()> whileAsked = [] {};

private:
    ResultReply asked(std::string call) override {
        whileAsked();
        const std::lock_guard lock(mutex_);
        calls_.emplace_back(transport_.currentEffectiveUserID().value(), std::move(call));
        return {"the result", "the error"};
    }

    const Transport& transport_;
    mutable std::mutex mutex_;
    std::vector<std::pair<uid_t, std::string>> calls_;
};

/// The sentence of the error with which the action fails. An exception leaves autorelease pools
/// open; what is in them goes with the one around them.
std::string sentenceOf(const std::function<void()>& action) {
    @autoreleasepool {
        try {
            action();
        } catch (const HelperClientError& error) {
            return error.what();
        }
        return "there is no error";
    }
}

/// What is alive once everything under way has come to its end.
std::map<std::string, long> aliveNow() {
    EXPECT_TRUE(settle());
    return test::objc::alive();
}

/// The helper's transport and its client in one process. In the end nothing is left of them.
class XPCLimitsTest : public testing::Test {
protected:
    XPCLimitsTest() {
        xpc.setRequirement(clientsRequirement, true);
        xpc.setRequirement(test::helperRequirement, true);
    }

    void TearDown() override {
        EXPECT_TRUE(settle());  // Whatever is under way still needs the transport.
        transport.reset();
        EXPECT_EQ(aliveNow(), before);
        EXPECT_EQ(doorkeeper.ended, doorkeeper.admitted);
        XPC::renewed();
    }

    void offer() { transport->resume(doorkeeper, helper); }

    XPC& xpc = XPC::renewed();
    const std::map<std::string, long> before = aliveNow();
    test::FakeCodeSigning codeSigning;
    std::unique_ptr<Transport> transport = makeTransport(codeSigning);
    CountingDoorkeeper doorkeeper;
    CallerHelper helper{*transport};
};

TEST_F(XPCLimitsTest, LeavesNoObjectBehind) {
    offer();

    for (int round = 0; round < 100; ++round) {
        const auto client = connectToHelper();
        EXPECT_EQ(client->applyFirewallWithPolicyData("[]").result, "the result");
        EXPECT_EQ(client->removeFirewall(), "the error");
        EXPECT_EQ(client->firewallReport().error, "the error");
        EXPECT_EQ(client->createVLANWithName("Lab of mine", 7, "en0").result, "the result");
        EXPECT_EQ(client->deleteVLANWithBsdName("vlan0"), "the error");
        EXPECT_EQ(client->installCLISymlink(), "the error");
        EXPECT_EQ(client->removeCLISymlink(), "the error");
        EXPECT_EQ(client->setTarnvaleResolverWithEnabled(true), "the error");
        client->shutdownForUpgrade([] {});
    }

    EXPECT_EQ(doorkeeper.admitted, 100);
}

TEST_F(XPCLimitsTest, KnowsEachConnectionsUser) {
    offer();
    xpc.setClient({.pid = 4711, .uid = 501});
    const auto one = connectToHelper();
    xpc.setClient({.pid = 4712, .uid = 502});
    const auto other = connectToHelper();

    one->removeFirewall();
    other->removeFirewall();
    one->firewallReport();

    EXPECT_THAT(doorkeeper.uids, ElementsAre(501, 502));
    ASSERT_EQ(doorkeeper.peers.size(), 2U);
    EXPECT_EQ(doorkeeper.peers[0].pid, 4711);
    EXPECT_EQ(doorkeeper.peers[1].pid, 4712);
    EXPECT_THAT(
        helper.calls(),
        ElementsAre(
            Pair(501, "helperVersion"),
            Pair(502, "helperVersion"),
            Pair(501, "removeFirewall"),
            Pair(502, "removeFirewall"),
            Pair(501, "firewallReport")));
}

TEST_F(XPCLimitsTest, HearsNothingFromAClientThatIsAnotherProgramNow) {
    offer();
    const auto client = connectToHelper();

    xpc.setRequirement(clientsRequirement, false);

    EXPECT_EQ(
        sentenceOf([&] { client->removeFirewall(); }),
        "The helper gave no reply: it closed the connection.");
    EXPECT_TRUE(settle());
    EXPECT_EQ(doorkeeper.ended, 1);
    EXPECT_EQ(helper.calls().size(), 1U);
}

TEST_F(XPCLimitsTest, TurnsAwayAClientWhoseSignatureOnlyLooksRight) {
    offer();
    xpc.setRequirement(clientsRequirement, false);

    EXPECT_EQ(
        sentenceOf([] { connectToHelper(); }),
        "The helper closed the connection: it doesn't admit this program, or has too many "
        "connections already.");
    EXPECT_THAT(helper.calls(), IsEmpty());
}

TEST_F(XPCLimitsTest, SaysThatItIsNotAdmitted) {
    offer();
    doorkeeper.admits = false;

    EXPECT_EQ(
        sentenceOf([] { connectToHelper(); }),
        "The helper closed the connection: it doesn't admit this program, or has too many "
        "connections already.");
}

TEST_F(XPCLimitsTest, SaysThatNobodyOffersTheService) {
    EXPECT_EQ(
        sentenceOf([] { connectToHelper(); }), "Could not reach the helper: The connection ended.");
}

TEST_F(XPCLimitsTest, DoesNotConnectToAHelperThatAnybodyElseHasSigned) {
    offer();
    xpc.setRequirement(test::helperRequirement, false);

    EXPECT_EQ(
        sentenceOf([] { connectToHelper(); }),
        "Could not reach the helper: it isn't signed by Tarnvale's team.");
}

TEST_F(XPCLimitsTest, CountsEachConnectionDownOnceHoweverItEnds) {
    offer();
    const auto endings = std::to_array<std::function<void()>>(
        {[] {},
         [&] { helper.whileAsked = [] { throw std::runtime_error("it fails"); }; },
         [&] { helper.whileAsked = [] { [[NSXPCConnection currentConnection] invalidate]; }; },
         [&] { xpc.setRequirement(clientsRequirement, false); },
         [&] { xpc.setRequirement(test::helperRequirement, false); },
         [&] { xpc.endNextWait(); }});

    for (std::size_t i = 0; i < endings.size(); ++i) {
        SCOPED_TRACE("ending " + std::to_string(i));
        auto client = connectToHelper();
        endings.at(i)();
        sentenceOf([&] { client->removeFirewall(); });
        sentenceOf([&] { client->removeFirewall(); });
        client.reset();

        EXPECT_TRUE(settle());
        EXPECT_EQ(doorkeeper.ended, doorkeeper.admitted);
        EXPECT_GE(doorkeeper.admitted, static_cast<int>(i + 1));
        helper.whileAsked = [] {};
        xpc.setRequirement(clientsRequirement, true);
        xpc.setRequirement(test::helperRequirement, true);
    }
}

TEST_F(XPCLimitsTest, TakesNoReplyFromAHelperThatAnybodyElseHasSigned) {
    offer();
    const auto client = connectToHelper();

    xpc.setRequirement(test::helperRequirement, false);

    EXPECT_EQ(
        sentenceOf([&] { client->firewallReport(); }),
        "The helper gave no reply: it isn't signed by Tarnvale's team.");
}

TEST_F(XPCLimitsTest, WaitsAMinuteToBeAdmittedAndTwoForAReply) {
    offer();
    const auto client = connectToHelper();

    client->removeFirewall();

    EXPECT_THAT(xpc.waits(), ElementsAre(60s, 120s));
}

TEST_F(XPCLimitsTest, SaysThatTheHelperIsTooSlow) {
    offer();
    xpc.endNextWait();
    EXPECT_EQ(
        sentenceOf([] { connectToHelper(); }), "Could not reach the helper: it took too long.");

    const auto client = connectToHelper();
    xpc.endNextWait();
    EXPECT_EQ(
        sentenceOf([&] { client->removeFirewall(); }),
        "The helper gave no reply: it took too long.");
    EXPECT_EQ(client->removeFirewall(), "the error") << "a late reply is nobody else's";
}

TEST_F(XPCLimitsTest, CarriesOutARequestWhoseClientHasGone) {
    offer();
    auto client = connectToHelper();
    std::promise<void> begun;
    std::promise<void> gone;
    helper.whileAsked = [&] {
        begun.set_value();
        gone.get_future().wait();
    };
    xpc.endNextWait();
    EXPECT_NE(sentenceOf([&] { client->removeFirewall(); }), "there is no error");
    begun.get_future().wait();

    client.reset();
    gone.set_value();

    EXPECT_TRUE(settle());
    EXPECT_EQ(helper.calls().size(), 2U);
}

}  // namespace
}  // namespace tarnvale::platform
