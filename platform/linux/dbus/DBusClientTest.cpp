// SPDX-License-Identifier: MIT
//
// The client against the transport that the helper has, in one process.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include "platform/HelperClient.h"
#include "platform/Transport.h"
#include "platform/linux/dbus/ListeningSocket.h"
#include "support/Mutex.h"
#include "support/UniqueFd.h"
#include "tests/support/FakeHelper.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/UnixSockets.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using support::UniqueFd;
using testing::ElementsAre;

/// Finds every program good as long as the test says so.
class Signing final : public CodeSigning {
public:
    std::atomic<bool> valid = true;

    std::unique_ptr<Code> self() override { return nullptr; }
    std::unique_ptr<Code> guest(const Peer& /*peer*/) override {
        return std::make_unique<ValidCode>(valid);
    }

private:
    class ValidCode final : public Code {
    public:
        explicit ValidCode(const std::atomic<bool>& valid) : valid_(valid) {}
        std::optional<SigningInformation> signingInformation() override { return {}; }
        bool isValid(std::string_view /*requirement*/) override { return valid_; }

    private:
        const std::atomic<bool>& valid_;
    };
};

class SimpleDoorkeeper final : public TransportDelegate {
public:
    std::atomic<bool> admits = true;

    bool shouldAcceptNewConnection(NewConnection& connection) override {
        return admits && connection.setCodeSigningRequirement(R"(identifier "good")");
    }
};

/// Replies what the test wants and remembers what it was asked, on the connection's thread.
class Exported final : public test::FakeHelper {
public:
    std::vector<std::string> calls() {
        const support::MutexLock lock(mutex_);
        return calls_;
    }
    void setReply(const ResultReply& reply) {
        const support::MutexLock lock(mutex_);
        reply_ = reply;
    }
    /// What is done in the middle of each request.
    void setWork(std::function<void()> work) {
        const support::MutexLock lock(mutex_);
        work_ = std::move(work);
    }

private:
    ResultReply asked(std::string call) override {
        const support::MutexLock lock(mutex_);
        calls_.push_back(std::move(call));
        work_();
        return reply_;
    }

    support::Mutex mutex_;
    std::vector<std::string> calls_ GUARDED_BY(mutex_);
    ResultReply reply_ GUARDED_BY(mutex_);
    std::function<void()> work_ GUARDED_BY(mutex_) = [] {};
};

/// The error with which the action fails.
std::string errorOf(const std::function<void()>& action, HelperClientError::Case errorCase) {
    try {
        action();
    } catch (const HelperClientError& error) {
        EXPECT_EQ(error.errorCase(), errorCase) << error.what();
        return error.what();
    }
    return "none";
}

std::string connectionError(HelperClientError::Case errorCase) {
    return errorOf([] { connectToHelper(); }, errorCase);
}

constexpr const char* turnedAway =
    "The helper closed the connection: it doesn't admit this program, or has too many connections "
    "already.";

/// The transport lives to the end of the process, as in the helper.
class DBusClientTest : public testing::Test {
protected:
    DBusClientTest() { makeTransport(signing).release()->resume(doorkeeper, exported); }

    Signing& signing = *new Signing;
    SimpleDoorkeeper& doorkeeper = *new SimpleDoorkeeper;
    Exported& exported = *new Exported;
};

TEST(DBusClientQueueTest, WaitsForAPlaceInTheQueue) {
    UniqueFd listening = openListeningSocket(0);
    ASSERT_EQ(::listen(listening.get(), 0), 0);
    const UniqueFd first = test::connectTo(listeningSocketPath);
    std::atomic<bool> isWaiting = true;
    std::thread client([&] {
        connectionError(HelperClientError::Case::notAdmitted);
        isWaiting = false;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(isWaiting);

    UniqueFd accepted(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    // Now the client itself is in the queue, and is turned away.
    pollfd queue{.fd = listening.get(), .events = POLLIN, .revents = 0};
    ASSERT_EQ(::poll(&queue, 1, 10'000), 1);
    accepted.reset(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    accepted.reset();

    client.join();
    EXPECT_FALSE(isWaiting);
}

TEST_F(DBusClientTest, PassesEveryRequestOn) {
    const auto client = connectToHelper();
    const std::string policy("[\0\xFF]", 4);

    client->helperVersion();
    client->applyFirewallWithPolicyData(policy);
    client->applyFirewallWithPolicyData("");
    client->removeFirewall();
    client->firewallReport();
    client->createVLANWithName("Büro", -7, "");
    client->deleteVLANWithBsdName("vlan0");
    client->installCLISymlink();
    client->removeCLISymlink();
    client->setTarnvaleResolverWithEnabled(true);
    client->setTarnvaleResolverWithEnabled(false);
    int replies = 0;
    client->shutdownForUpgrade([&] { ++replies; });

    EXPECT_EQ(replies, 1);
    EXPECT_THAT(
        exported.calls(),
        ElementsAre(
            "helperVersion",
            "applyFirewall " + policy,
            "applyFirewall ",
            "removeFirewall",
            "firewallReport",
            "createVLAN Büro|-7|",
            "deleteVLAN vlan0",
            "installCLISymlink",
            "removeCLISymlink",
            "setTarnvaleResolver on",
            "setTarnvaleResolver off",
            "shutdownForUpgrade"));
}

TEST_F(DBusClientTest, PassesEveryReplyBack) {
    const auto client = connectToHelper();
    for (const auto& reply :
         {ResultReply{.result = std::nullopt, .error = std::nullopt},
          ResultReply{.result = "the result", .error = std::nullopt},
          ResultReply{.result = std::nullopt, .error = "the • error"},
          ResultReply{.result = "", .error = ""},
          ResultReply{.result = std::string(2'000'000, 'r'), .error = std::nullopt}}) {
        exported.setReply(reply);

        EXPECT_EQ(client->helperVersion(), reply.result);
        EXPECT_EQ(client->applyFirewallWithPolicyData("[]"), reply);
        EXPECT_EQ(client->removeFirewall(), reply.error);
        EXPECT_EQ(client->firewallReport(), reply);
        EXPECT_EQ(client->createVLANWithName("a", 5, "en0"), reply);
        EXPECT_EQ(client->deleteVLANWithBsdName("vlan0"), reply.error);
        EXPECT_EQ(client->installCLISymlink(), reply.error);
        EXPECT_EQ(client->removeCLISymlink(), reply.error);
        EXPECT_EQ(client->setTarnvaleResolverWithEnabled(true), reply.error);
    }
}

TEST_F(DBusClientTest, RepairsTextThatDBusCantCarry) {
    connectToHelper()->createVLANWithName("B\xFCro", 5, "en0");

    connectToHelper()->createVLANWithName("B\0\uFFFEx"s, 5, "en0");

    EXPECT_THAT(
        exported.calls(),
        ElementsAre("createVLAN B\uFFFDro|5|en0", "createVLAN B\uFFFD\uFFFDx|5|en0"));
}

TEST_F(DBusClientTest, RepliesWithWhatDBusCantCarryReplaced) {
    const auto client = connectToHelper();
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"a\0b\0"s, "a\uFFFDb\uFFFD"},
        {"a\xFF\xC3z", "a\uFFFD\uFFFDz"},
        // Noncharacters, and their neighbours on both sides.
        {"\uFDCF|\uFDD0|\uFDEF|\uFDF0", "\uFDCF|\uFFFD|\uFFFD|\uFDF0"},
        {"\uFFFD|\uFFFE|\uFFFF|\U00010000", "\uFFFD|\uFFFD|\uFFFD|\U00010000"},
        {"\U0001FFFD|\U0001FFFE|\U0001FFFF", "\U0001FFFD|\uFFFD|\uFFFD"},
        {"\U0003FFFE|\U0007FFFF|\U0008FFFE", "\uFFFD|\uFFFD|\uFFFD"},
        {"\U000FFFFF|\U0010FFFD|\U0010FFFE", "\uFFFD|\U0010FFFD|\uFFFD"},
        {"• \uF8FF \U0001F600 é", "• \uF8FF \U0001F600 é"}};
    for (const auto& [text, carried] : cases) {
        exported.setReply({.result = text, .error = text});

        EXPECT_EQ(
            client->applyFirewallWithPolicyData("[]"),
            (ResultReply{.result = carried, .error = carried}));
    }
}

TEST_F(DBusClientTest, ReplacesMillionsOfNulsAtOnce) {
    constexpr std::size_t many = 1'500'000;
    const auto client = connectToHelper();
    exported.setReply({.result = std::nullopt, .error = std::string(many, '\0')});

    const auto begin = std::chrono::steady_clock::now();
    const auto error = client->removeFirewall();

    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    EXPECT_EQ(error.value_or("").size(), many * std::string_view("\uFFFD").size());
}

TEST_F(DBusClientTest, CarriesTheLargestPolicy) {
    constexpr std::size_t largest = std::size_t{64} << 20U;
    const auto client = connectToHelper();

    client->applyFirewallWithPolicyData(std::string(largest, ' '));
    EXPECT_EQ(exported.calls().at(0).size(), std::string_view("applyFirewall ").size() + largest);
}

TEST_F(DBusClientTest, IsNotAdmitted) {
    doorkeeper.admits = false;

    EXPECT_EQ(connectionError(HelperClientError::Case::notAdmitted), turnedAway);
}

TEST_F(DBusClientTest, IsNotAdmittedWithASignatureThatIsNotValid) {
    signing.valid = false;

    EXPECT_EQ(connectionError(HelperClientError::Case::notAdmitted), turnedAway);
}

TEST_F(DBusClientTest, GetsNoReplyOnceItsSignatureIsNotValidAnyMore) {
    const auto client = connectToHelper();
    exported.setWork([this] { signing.valid = false; });
    client->removeFirewall();

    EXPECT_EQ(
        errorOf([&] { client->removeFirewall(); }, HelperClientError::Case::noReply),
        "The helper gave no reply: it closed the connection.");
    EXPECT_EQ(exported.calls().size(), 1U);
}

TEST_F(DBusClientTest, SaysWhatTheHelperSaysOfARequestThatFails) {
    const auto client = connectToHelper();
    exported.setWork([] { throw std::runtime_error("unexpected"); });

    EXPECT_THAT(
        errorOf([&] { client->removeFirewall(); }, HelperClientError::Case::noReply),
        testing::StartsWith("The helper gave no reply: "));

    exported.setWork([] {});
    EXPECT_EQ(connectToHelper()->removeFirewall(), std::nullopt);
}

TEST(DBusClientAloneTest, SaysThatNobodyIsThere) {
    EXPECT_EQ(
        connectionError(HelperClientError::Case::notReachable),
        "Could not reach the helper: No such file or directory.");

    { const UniqueFd stale = openListeningSocket(0); }
    EXPECT_EQ(
        connectionError(HelperClientError::Case::notReachable),
        "Could not reach the helper: Connection refused.");

    std::filesystem::remove(listeningSocketPath);
    test::put(listeningSocketPath, "no socket");
    EXPECT_EQ(
        connectionError(HelperClientError::Case::notReachable),
        "Could not reach the helper: Connection refused.");
}

/// What becomes of a connection whose other side says this and hangs up.
std::string errorAgainst(std::string_view words) {
    const UniqueFd listening = openListeningSocket(0);
    std::thread peer([&] {
        UniqueFd connection;
        while (!connection) {  // it is non-blocking
            connection.reset(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        }
        ::send(connection.get(), words.data(), words.size(), MSG_NOSIGNAL);
        std::string heard(1000, ' ');
        ::recv(connection.get(), heard.data(), heard.size(), 0);
    });
    auto error = connectionError(HelperClientError::Case::notAdmitted);
    peer.join();
    return error;
}

TEST(DBusClientAloneTest, IsNotAdmittedByWhoeverHangsUp) {
    for (const std::string_view words :
         {"",
          "OK 00000000000000000000000000000000\r\n",
          "OK 00000000000000000000000000000000\r\nl",
          "REJECTED\r\n",
          "SSH-2.0-OpenSSH_9.2p1\r\n"}) {
        EXPECT_EQ(errorAgainst(words), turnedAway) << words;
    }
}

}  // namespace
}  // namespace tarnvale::platform
