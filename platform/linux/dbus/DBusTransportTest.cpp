// SPDX-License-Identifier: MIT

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "platform/Transport.h"
#include "platform/linux/dbus/DBusSession.h"
#include "platform/linux/dbus/ListeningSocket.h"
#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Pipe.h"
#include "tests/support/RawPeer.h"
#include "tests/support/RefusedCall.h"
#include "tests/support/UnixSockets.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;
using support::UniqueFd;
using test::Pipe;
using test::RawPeer;
using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

/// Finds every program good as long as the test says so.
class FakeSigning final : public CodeSigning {
public:
    std::atomic<bool> valid = true;
    std::atomic<int> checks = 0;
    /// The number of a check that takes as long as it is the slow one; what it finds it finds at
    /// its beginning.
    std::atomic<int> slowCheck = 0;

    /// Checks come too late.
    std::atomic<bool> isOverdue = false;
    std::atomic<uid_t> lastUser = 12345;
    std::atomic<std::chrono::steady_clock::time_point> lastDeadline;

    std::unique_ptr<Code> self() override { return nullptr; }
    std::unique_ptr<Code> guest(const Peer& peer) override {
        lastUser = peer.user.value_or(12345);
        lastDeadline = peer.checkedBy;
        return std::make_unique<FakeCode>(*this);
    }

private:
    class FakeCode final : public Code {
    public:
        explicit FakeCode(FakeSigning& signing) : signing_(signing) {}
        std::optional<SigningInformation> signingInformation() override { return {}; }
        bool isValid(std::string_view /*requirement*/) override {
            if (signing_.isOverdue) {
                throw CheckOverdue();
            }
            const bool found = signing_.valid;
            const int number = ++signing_.checks;
            while (signing_.slowCheck == number) {
                std::this_thread::sleep_for(1ms);
            }
            return found;
        }

    private:
        FakeSigning& signing_;
    };
};

class Doorkeeper final : public TransportDelegate {
public:
    std::string requirement = R"(identifier "good")";
    std::atomic<bool> admits = true;
    std::atomic<int> admitted = 0;
    std::atomic<int> ended = 0;
    std::function<void()> whenOneEnds = [] {};
    std::atomic<pid_t> lastPeer = 0;
    std::atomic<uid_t> lastUser = 12345;

    /// As long as it isn't set, admissions take their time.
    std::atomic<bool> hasDecided = true;
    std::atomic<int> asked = 0;

    bool shouldAcceptNewConnection(NewConnection& connection) override {
        ++asked;
        while (!hasDecided) {
            std::this_thread::sleep_for(1ms);
        }
        lastPeer = connection.peer().pid;
        lastUser = connection.effectiveUserID();
        if (!admits || !connection.setCodeSigningRequirement(requirement)) {
            return false;
        }
        ++admitted;
        connection.setInvalidationHandler([this] {
            whenOneEnds();
            ++ended;
        });
        return true;
    }
};

/// Answers with what it was asked.
class Echo final : public TarnvaleAdminHelperProtocol {
public:
    explicit Echo(const std::unique_ptr<Transport>& transport) : transport_(transport) {}

    std::atomic<int> calls = 0;

    OptionalText helperVersion() override {
        ++calls;
        return std::to_string(transport_->currentEffectiveUserID().value_or(99));
    }
    ResultReply applyFirewallWithPolicyData(std::string_view policyData) override {
        ++calls;
        return {.result = std::to_string(policyData.size()), .error = std::nullopt};
    }
    OptionalText removeFirewall() override { return std::nullopt; }
    ResultReply firewallReport() override {
        std::string report;
        report.resize(20'000'000, 'r');
        return {.result = report, .error = std::nullopt};
    }
    ResultReply createVLANWithName(
        std::string_view name, std::int64_t tag, std::string_view parentBSD) override {
        return {
            .result = std::nullopt,
            .error = std::string(name) + "|" + std::to_string(tag) + "|" + std::string(parentBSD)};
    }
    OptionalText deleteVLANWithBsdName(std::string_view bsdName) override {
        return std::string(bsdName) + std::string("\0\xFF", 2);
    }
    OptionalText installCLISymlink() override { throw std::runtime_error("unexpected"); }
    OptionalText removeCLISymlink() override { return ""; }
    OptionalText setTarnvaleResolverWithEnabled(bool enabled) override {
        return enabled ? "on" : "off";
    }
    void shutdownForUpgrade(const std::function<void()>& reply) override { reply(); }

private:
    const std::unique_ptr<Transport>& transport_;
};

/// A client as sd-bus makes one.
class Client {
public:
    Client() {
        sd_bus* made = nullptr;
        ::sd_bus_new(&made);
        bus_.reset(made);
        ::sd_bus_set_address(made, (std::string("unix:path=") + listeningSocketPath).c_str());
        startResult = ::sd_bus_start(made);
    }

    int startResult = 0;

    /// The optional texts of the reply, one string for each array: its element, or "nil".
    std::optional<Texts> call(const char* method, const char* types, auto... arguments) {
        sd_bus_error error{};
        sd_bus_message* reply = nullptr;
        const int result = ::sd_bus_call_method(
            bus_.get(),
            nullptr,
            "/com/brackwen/tarnvale/adminhelper",
            "com.brackwen.tarnvale.adminhelper",
            method,
            &error,
            &reply,
            types,
            arguments...);
        ::sd_bus_error_free(&error);
        lastResult = result;
        if (result < 0) {
            return std::nullopt;
        }
        const std::unique_ptr<sd_bus_message, sd_bus_message* (*)(sd_bus_message*)> owner(
            reply, ::sd_bus_message_unref);
        Texts texts;
        while (::sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "s") > 0) {
            const char* text = "nil";
            ::sd_bus_message_read(reply, "s", &text);
            texts.emplace_back(text);
            ::sd_bus_message_exit_container(reply);
        }
        return texts;
    }

    int lastResult = 0;

private:
    std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> bus_{nullptr, ::sd_bus_close_unref};
};

RawPeer connectRaw() {
    return RawPeer(test::connectTo(listeningSocketPath));
}

template <class Condition>
bool eventually(const Condition& condition) {
    for (int i = 0; i < 3000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

/// The transport lives to the end of the process, as in the helper.
class DBusTransportTest : public testing::Test {
protected:
    DBusTransportTest() { transport->resume(doorkeeper, echo); }

    FakeSigning& signing = *new FakeSigning;
    Doorkeeper& doorkeeper = *new Doorkeeper;
    std::unique_ptr<Transport>& transport = *new std::unique_ptr<Transport>(makeTransport(signing));
    Echo& echo = *new Echo(transport);
};

TEST_F(DBusTransportTest, CarriesTheTenMethods) {
    Client client;

    EXPECT_THAT(client.call("HelperVersion", ""), testing::Optional(ElementsAre("0")));
    EXPECT_THAT(
        client.call("ApplyFirewall", "ay", 3, 1, 2, 3), testing::Optional(ElementsAre("3", "nil")));
    EXPECT_THAT(client.call("RemoveFirewall", ""), testing::Optional(ElementsAre("nil")));
    EXPECT_THAT(
        client.call("CreateVLAN", "sxs", "Büro", std::int64_t{-5}, "en0"),
        testing::Optional(ElementsAre("nil", "Büro|-5|en0")));
    EXPECT_THAT(client.call("RemoveCLISymlink", ""), testing::Optional(ElementsAre("")));
    EXPECT_THAT(client.call("SetTarnvaleResolver", "b", 1), testing::Optional(ElementsAre("on")));
    EXPECT_THAT(client.call("SetTarnvaleResolver", "b", 0), testing::Optional(ElementsAre("off")));
    EXPECT_THAT(client.call("ShutdownForUpgrade", ""), testing::Optional(IsEmpty()));
}

TEST_F(DBusTransportTest, SendsWhatDBusCantCarryWithReplacementCharacters) {
    EXPECT_THAT(
        Client().call("DeleteVLAN", "s", "vlan0"),
        testing::Optional(ElementsAre("vlan0\uFFFD\uFFFD")));
}

TEST_F(DBusTransportTest, DeliversALargeReply) {
    const auto reply = Client().call("FirewallReport", "");

    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->at(0).size(), 20'000'000U);
    EXPECT_EQ(reply->at(1), "nil");
}

TEST_F(DBusTransportTest, TakesNoRequestBeforeTheReplyToTheLastHasLeft) {
    auto peer = connectRaw();
    ASSERT_TRUE(peer.authenticate());
    ASSERT_TRUE(peer.send(
        test::RawMessage{.member = "FirewallReport"}.bytes() + test::RawMessage{}.bytes()));

    const timeval patience{.tv_sec = 30, .tv_usec = 0};
    ::setsockopt(peer.socket(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::vector<char> half(10'000'000);
    const auto takeHalf = [&] {
        return ::recv(peer.socket(), half.data(), half.size(), MSG_WAITALL);
    };
    ASSERT_EQ(takeHalf(), 10'000'000);
    EXPECT_EQ(echo.calls, 0) << "no buffer holds what is missing of the report";

    ASSERT_EQ(takeHalf(), 10'000'000);
    EXPECT_TRUE(eventually([&] { return echo.calls == 1; }));
}

TEST_F(DBusTransportTest, AFailureOfAHandlerIsAnErrorReply) {
    Client client;

    EXPECT_FALSE(client.call("InstallCLISymlink", ""));
    EXPECT_TRUE(client.call("HelperVersion", ""));
}

TEST_F(DBusTransportTest, RefusesWrongTypesAndUnknownMethods) {
    Client client;

    EXPECT_FALSE(client.call("ApplyFirewall", "s", "text"));
    EXPECT_FALSE(client.call("HelperVersion", "s", "text"));
    EXPECT_FALSE(client.call("CreateVLAN", "ss", "a", "b"));
    EXPECT_FALSE(client.call("FormatDisk", ""));
    EXPECT_EQ(echo.calls, 0);
    EXPECT_TRUE(client.call("HelperVersion", ""));
}

/// The answer to a call by a peer that writes its messages itself.
test::Received answerTo(const test::RawMessage& call) {
    auto peer = connectRaw();
    EXPECT_TRUE(peer.authenticate());
    EXPECT_TRUE(peer.send(call.bytes()));
    return peer.receive().value_or(test::Received{});
}

TEST_F(DBusTransportTest, TakesNumbersInEitherOrder) {
    constexpr std::size_t length = 70'000;
    const auto answer = answerTo(
        {.member = "ApplyFirewall",
         .signature = "ay",
         .body = test::wireNumber(length, true) + std::string(length, ' '),
         .isBigEndian = true});

    EXPECT_EQ(answer.type, test::methodReturn);
    EXPECT_TRUE(answer.says("70000"));
}

TEST_F(DBusTransportTest, FindsAMethodWithoutItsInterface) {
    const auto version = answerTo({.interface = ""});
    EXPECT_EQ(version.type, test::methodReturn);
    EXPECT_TRUE(version.says(std::to_string(::getuid())));

    const auto hello =
        answerTo({.member = "Hello", .path = "/org/freedesktop/DBus", .interface = ""});
    EXPECT_EQ(hello.type, test::methodReturn);

    const test::RawMessage unknown{.member = "FormatDisk", .interface = ""};
    EXPECT_EQ(answerTo(unknown).type, test::errorReply);
    EXPECT_TRUE(answerTo(unknown).says("org.freedesktop.DBus.Error.UnknownMethod"));
    const test::RawMessage wrong{
        .member = "HelperVersion", .signature = "s", .body = test::wireText("x"), .interface = ""};
    EXPECT_TRUE(answerTo(wrong).says("org.freedesktop.DBus.Error.InvalidArgs"));
}

TEST_F(DBusTransportTest, TellsOfItsMethodsWhenItIsAsked) {
    auto peer = connectRaw();
    ASSERT_TRUE(peer.authenticate());
    const auto answer = [&peer](const test::RawMessage& call) {
        EXPECT_TRUE(peer.send(call.bytes()));
        return peer.receive().value_or(test::Received{});
    };
    const std::string introspectable = "org.freedesktop.DBus.Introspectable";
    const std::string version = std::to_string(::getuid());
    EXPECT_TRUE(answer({}).says(version));

    const auto methods = answer({.member = "Introspect", .interface = introspectable});
    const auto driver = answer(
        {.member = "Introspect", .path = "/org/freedesktop/DBus", .interface = introspectable});

    for (const char* const method : {"HelperVersion", "ApplyFirewall", "ShutdownForUpgrade"}) {
        EXPECT_TRUE(methods.says(std::string("<method name=\"") + method)) << method;
    }
    EXPECT_TRUE(driver.says("<method name=\"Hello"));
    EXPECT_TRUE(answer({}).says(version));
}

/// The body of a call to make the VLAN 7 on en0. The tag stands at a multiple of 8.
std::string bodyWithName(std::string_view name, bool isBigEndian = false, char padding = '\0') {
    std::string body = test::wireText(name, isBigEndian);
    body.resize((body.size() + 7) / 8 * 8, padding);
    body += test::wireNumber(isBigEndian ? 0 : 7, isBigEndian);
    body += test::wireNumber(isBigEndian ? 7 : 0, isBigEndian);
    return body + test::wireText("en0", isBigEndian);
}

TEST_F(DBusTransportTest, ReadsArgumentsInEitherOrder) {
    for (const bool isBigEndian : {false, true}) {
        const auto vlan = answerTo(
            {.member = "CreateVLAN",
             .signature = "sxs",
             .body = bodyWithName("lab", isBigEndian),
             .isBigEndian = isBigEndian});
        const auto resolver = answerTo(
            {.member = "SetTarnvaleResolver",
             .signature = "b",
             .body = test::wireNumber(1, isBigEndian),
             .isBigEndian = isBigEndian});

        EXPECT_TRUE(vlan.says("lab|7|en0")) << vlan.bytes;
        EXPECT_TRUE(resolver.says("on")) << resolver.bytes;
    }
}

TEST_F(DBusTransportTest, TakesNoncharactersInArguments) {
    for (const std::string_view text : {"\uFDD0x", "\uFFFEx", "\U0010FFFFx", "\uFFFDx"}) {
        const auto answer =
            answerTo({.member = "CreateVLAN", .signature = "sxs", .body = bodyWithName(text)});

        EXPECT_EQ(answer.type, test::methodReturn) << text;
        EXPECT_TRUE(answer.says("\uFFFDx|7|en0")) << text;
    }
}

TEST_F(DBusTransportTest, TakesTextsOfSixtyThousandBytesAndNotOfMore) {
    const std::string text(60'000, 'x');
    EXPECT_THAT(
        Client().call("CreateVLAN", "sxs", text.c_str(), std::int64_t{7}, "en0"),
        testing::Optional(ElementsAre("nil", text + "|7|en0")));

    for (const std::size_t size : {66'000U, 20'000'000U}) {
        const auto answer = answerTo(
            {.member = "DeleteVLAN",
             .signature = "s",
             .body = test::wireText(std::string(size, 'x'))});
        EXPECT_TRUE(answer.says("org.freedesktop.DBus.Error.LimitsExceeded")) << size;
    }
}

TEST_F(DBusTransportTest, RefusesInvalidArguments) {
    const auto refuses = [](const char* member, const char* signature, const std::string& body) {
        const auto answer = answerTo({.member = member, .signature = signature, .body = body});
        return answer.says("org.freedesktop.DBus.Error.InconsistentMessage");
    };

    for (const std::size_t value : {2U, 256U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_TRUE(refuses("SetTarnvaleResolver", "b", test::wireNumber(value))) << value;
    }
    EXPECT_TRUE(refuses("SetTarnvaleResolver", "b", ""));
    EXPECT_TRUE(refuses("SetTarnvaleResolver", "b", std::string(3, '\0')));
    using namespace std::string_literals;
    for (const auto& text : {"\xFF"s, "\xED\xA0\x80"s, "a\0b"s}) {
        EXPECT_TRUE(refuses("DeleteVLAN", "s", test::wireText(text))) << text;
    }
    for (const std::size_t length : {2U, 4U, 5U, 100U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        EXPECT_TRUE(refuses("DeleteVLAN", "s", test::wireNumber(length) + "abc\0"s)) << length;
    }
    EXPECT_TRUE(refuses("DeleteVLAN", "s", ""));
    EXPECT_TRUE(refuses("CreateVLAN", "sxs", bodyWithName("ab", false, '\1')));
}

TEST_F(DBusTransportTest, RefusesMoreThanItsArguments) {
    using namespace std::string_literals;
    const auto bytes = [](std::size_t size, bool isBigEndian) {
        return test::wireNumber(size, isBigEndian) + std::string(size, 'x');
    };
    for (const bool isBigEndian : {false, true}) {
        const std::vector<test::RawMessage> calls{
            {.member = "HelperVersion"},
            {.member = "HelperVersion", .interface = ""},
            {.member = "ApplyFirewall", .signature = "ay", .body = bytes(2, isBigEndian)},
            {.member = "ApplyFirewall", .signature = "ay", .body = bytes(100'000, isBigEndian)},
            {.member = "CreateVLAN", .signature = "sxs", .body = bodyWithName("ab", isBigEndian)},
            {.member = "DeleteVLAN", .signature = "s", .body = test::wireText("ab", isBigEndian)},
            {.member = "SetTarnvaleResolver",
             .signature = "b",
             .body = test::wireNumber(1, isBigEndian)}};
        for (test::RawMessage call : calls) {
            call.isBigEndian = isBigEndian;
            EXPECT_EQ(answerTo(call).type, test::methodReturn) << call.member;

            call.body += '\0';
            EXPECT_TRUE(answerTo(call).says("org.freedesktop.DBus.Error.InconsistentMessage"))
                << call.member;
        }
    }
}

TEST_F(DBusTransportTest, ChecksAPeerBeforeAMethodIsFoundWithoutItsInterface) {
    auto peer = connectRaw();
    ASSERT_TRUE(peer.authenticate());
    ASSERT_TRUE(peer.send(test::RawMessage{.interface = ""}.bytes()));
    ASSERT_TRUE(peer.receive());

    signing.valid = false;
    peer.send(test::RawMessage{.interface = ""}.bytes());

    EXPECT_FALSE(peer.receive());
    EXPECT_EQ(echo.calls, 1);
}

TEST_F(DBusTransportTest, TellsWhoThePeerIs) {
    Client client;
    client.call("HelperVersion", "");

    EXPECT_EQ(doorkeeper.lastPeer, ::getpid());
    EXPECT_EQ(doorkeeper.lastUser, ::getuid());
    EXPECT_EQ(transport->currentEffectiveUserID(), std::nullopt);
}

TEST_F(DBusTransportTest, ClosesAPeerThatIsNotAdmittedWithoutAWord) {
    doorkeeper.admits = false;

    EXPECT_TRUE(connectRaw().closesWithin(2s));

    EXPECT_EQ(doorkeeper.ended, 0);
    EXPECT_EQ(signing.checks, 0);
}

TEST_F(DBusTransportTest, SaysThatARequirementIsNotWellFormed) {
    doorkeeper.requirement = "good";

    EXPECT_TRUE(connectRaw().closesWithin(2s));

    EXPECT_EQ(doorkeeper.admitted, 0);
    EXPECT_EQ(signing.checks, 0);
}

TEST_F(DBusTransportTest, ReadsNoByteOfAPeerWhoseSignatureOnlyLooksGood) {
    signing.valid = false;
    signing.slowCheck = 1;
    const auto peer = connectRaw();
    peer.send("\0AUTH ANONYMOUS\r\n"sv);
    signing.slowCheck = 0;

    EXPECT_TRUE(eventually([&] { return doorkeeper.ended == 1; }));

    // The end of a connection of which something has not been read is not an orderly one.
    char byte = 0;
    EXPECT_EQ(::recv(peer.socket(), &byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

constexpr int passRights = 83;  // SO_PASSRIGHTS, newer than the C library's headers

/// Since Linux 6.16.
bool kernelCanRefuseDescriptors() {
    const UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int value = 0;
    socklen_t size = sizeof value;
    return ::getsockopt(fd.get(), SOL_SOCKET, passRights, &value, &size) == 0;
}

/// Has the kernel pass them on to this process's listening socket, as older ones do.
void acceptDescriptors() {
    const int yes = 1;
    for (int fd = 3; fd < 1024; ++fd) {
        int listens = 0;
        socklen_t size = sizeof listens;
        if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens == 1) {
            ::setsockopt(fd, SOL_SOCKET, passRights, &yes, sizeof yes);
        }
    }
}

/// Sends both, and takes care that the test has no further hold on the second.
bool sendWithDescriptor(const RawPeer& peer, std::string_view bytes, UniqueFd descriptor) {
    return peer.sendWithDescriptor(bytes, descriptor.get(), 1);
}

TEST_F(DBusTransportTest, HasTheKernelRefuseDescriptorsIfItCan) {
    const auto peer = connectRaw();
    Pipe pipe;

    EXPECT_NE(
        sendWithDescriptor(peer, "\0AUTH ANONYMOUS\r\n"sv, std::move(pipe.writing)),
        kernelCanRefuseDescriptors());

    EXPECT_TRUE(pipe.isClosed()) << "the descriptor is open somewhere";
}

TEST_F(DBusTransportTest, TakesNoDescriptors) {
    acceptDescriptors();
    const auto peer = connectRaw();
    Pipe pipe;

    ASSERT_TRUE(sendWithDescriptor(peer, "\0AUTH ANONYMOUS\r\n"sv, std::move(pipe.writing)));

    EXPECT_TRUE(peer.closesWithin(5s));
    EXPECT_TRUE(pipe.isClosed()) << "the descriptor is open somewhere";
}

TEST_F(DBusTransportTest, ChecksThePeerBeforeEveryMessage) {
    Client client;
    EXPECT_TRUE(client.call("HelperVersion", ""));
    const int checks = signing.checks;
    EXPECT_TRUE(client.call("HelperVersion", ""));
    EXPECT_GT(signing.checks, checks);
    const int calls = echo.calls;

    signing.valid = false;

    EXPECT_FALSE(client.call("HelperVersion", ""));
    EXPECT_EQ(echo.calls, calls);
    EXPECT_TRUE(eventually([&] { return doorkeeper.ended == 1; }));
}

TEST_F(DBusTransportTest, ChecksAPeerOnBehalfOfItsUserWithinTenSeconds) {
    const auto begin = std::chrono::steady_clock::now();
    Client client;
    EXPECT_TRUE(client.call("HelperVersion", ""));
    const auto end = std::chrono::steady_clock::now();

    EXPECT_EQ(signing.lastUser, ::getuid());
    EXPECT_GE(signing.lastDeadline.load(), begin + 10s);
    EXPECT_LE(signing.lastDeadline.load(), end + 10s);
}

TEST_F(DBusTransportTest, ACheckThatComesTooLateEndsTheConnection) {
    Client client;
    EXPECT_TRUE(client.call("HelperVersion", ""));

    signing.isOverdue = true;

    EXPECT_FALSE(client.call("HelperVersion", ""));
    EXPECT_TRUE(eventually([&] { return doorkeeper.ended == 1; }));
}

TEST_F(DBusTransportTest, AFirstCheckThatComesToNoEndAdmitsNobody) {
    signing.isOverdue = true;

    EXPECT_TRUE(connectRaw().closesWithin(5s));

    EXPECT_EQ(doorkeeper.asked, 1);
    EXPECT_EQ(doorkeeper.admitted, 0);
    EXPECT_EQ(doorkeeper.ended, 0);
}

TEST_F(DBusTransportTest, ChecksAMessageAgainThatComesDuringTheCheckBeforeTheFirst) {
    const auto peer = connectRaw();
    ASSERT_TRUE(peer.send("\0AUTH ANONYMOUS\r\n"sv));
    std::array<char, 256> answer{};
    ASSERT_GT(::recv(peer.socket(), answer.data(), answer.size(), 0), 0);
    // The one before BEGIN is read. What comes meanwhile is read together with it.
    const int check = signing.checks + 1;
    signing.slowCheck = check;
    ASSERT_TRUE(peer.send("BEGIN\r\n"));
    ASSERT_TRUE(eventually([&] { return signing.checks == check; }));

    signing.valid = false;
    const test::RawMessage ping{
        .member = "Ping", .path = "/", .interface = "org.freedesktop.DBus.Peer"};
    ASSERT_TRUE(peer.send(ping.bytes()));
    signing.slowCheck = 0;

    EXPECT_EQ(::recv(peer.socket(), answer.data(), answer.size(), 0), 0) << "an answer";
}

TEST_F(DBusTransportTest, ReportsTheEndOfEachConnectionOnce) {
    for (int i = 0; i < 20; ++i) {
        Client client;
        client.call("HelperVersion", "");
    }

    EXPECT_TRUE(eventually([&] { return doorkeeper.ended == 20; }));
    EXPECT_EQ(doorkeeper.admitted, 20);
}

TEST_F(DBusTransportTest, ReportsTheEndOfAConnectionOnceItIsClosed) {
    auto peer = connectRaw();
    std::atomic<bool> wasClosed = false;
    doorkeeper.whenOneEnds = [&] { wasClosed = peer.isClosed(); };
    ASSERT_TRUE(peer.authenticate());

    signing.valid = false;
    ASSERT_TRUE(peer.send(test::RawMessage{}.bytes()));

    EXPECT_TRUE(eventually([&] { return doorkeeper.ended == 1; }));
    EXPECT_TRUE(wasClosed);
}

/// Two ends of a connection between processes.
struct Pair {
    Pair() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        ours.reset(ends[0]);
        theirs.reset(ends[1]);
    }

    UniqueFd ours;
    UniqueFd theirs;
};

TEST_F(DBusTransportTest, DropsAPeerWhoseProcessHasEndedWhoeverHoldsTheConnection) {
    const Pair pair;
    const pid_t child = ::fork();
    if (child == 0) {
        const auto connection = test::connectTo(listeningSocketPath);
        test::sendDescriptor(pair.theirs.get(), "x", connection.get());
        char byte = 0;
        static_cast<void>(::read(pair.theirs.get(), &byte, 1));
        ::_exit(0);
    }
    RawPeer peer(test::receiveDescriptor(pair.ours.get()));
    ASSERT_TRUE(peer.authenticate());
    EXPECT_FALSE(peer.closesWithin(200ms));

    ASSERT_EQ(::write(pair.ours.get(), "x", 1), 1);

    EXPECT_TRUE(peer.closesWithin(2s));
    EXPECT_TRUE(eventually([&] { return doorkeeper.ended == 1; }));
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

TEST_F(DBusTransportTest, LooksNowAndThenWhetherASilentPeerMayStay) {
    auto peer = connectRaw();
    ASSERT_TRUE(peer.authenticate());
    signing.isOverdue = true;
    EXPECT_FALSE(peer.closesWithin(11s)) << "which says nothing about it";

    signing.valid = false;
    signing.isOverdue = false;

    EXPECT_TRUE(peer.closesWithin(11s));
}

TEST_F(DBusTransportTest, LooksNowAndThenWhetherAPeerThatWaitsForRoomMayStay) {
    const std::string beginning =
        test::RawMessage{.member = "ApplyFirewall", .signature = "ay"}.bytes(20'000'000);
    auto first = connectRaw();
    auto second = connectRaw();
    for (auto* peer : {&first, &second}) {
        ASSERT_TRUE(peer->authenticate());
        ASSERT_TRUE(peer->send(beginning));
    }
    std::this_thread::sleep_for(1s);
    const int checks = signing.checks;

    std::this_thread::sleep_for(10s);

    EXPECT_EQ(signing.checks, checks + 2);
}

TEST_F(DBusTransportTest, WhoeverIsTurnedAwayAgainAndAgainIsNotEvenAsked) {
    doorkeeper.admits = false;
    const auto begin = std::chrono::steady_clock::now();
    for (int count = 0; count < 100; ++count) {
        EXPECT_TRUE(connectRaw().closesWithin(2s));
    }

    // One more is forgotten each second.
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(doorkeeper.asked, 20);
    EXPECT_LE(doorkeeper.asked, 21 + took / 1s);

    doorkeeper.admits = true;
    EXPECT_TRUE(eventually([] { return Client().call("HelperVersion", "").has_value(); }));
}

TEST_F(DBusTransportTest, TurnsAPeerAwayWhoseSignatureIsBadBeforeItSpeaks) {
    signing.valid = false;
    const auto begin = std::chrono::steady_clock::now();
    for (int count = 0; count < 100; ++count) {
        ASSERT_TRUE(connectRaw().closesWithin(5s));
    }

    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(doorkeeper.asked, 20);
    EXPECT_LE(doorkeeper.asked, 21 + took / 1s);
    EXPECT_EQ(signing.checks, doorkeeper.asked) << "one check of each is enough";
}

TEST_F(DBusTransportTest, RetiresOnlyWhenNobodyIsThere) {
    doorkeeper.hasDecided = false;
    std::optional<RawPeer> peer = connectRaw();
    ASSERT_TRUE(eventually([&] { return doorkeeper.asked == 1; }));
    EXPECT_FALSE(transport->retire()) << "it is being admitted";
    doorkeeper.hasDecided = true;
    ASSERT_TRUE(eventually([&] { return doorkeeper.admitted == 1; }));
    EXPECT_FALSE(transport->retire()) << "it is open";

    peer.reset();
    EXPECT_TRUE(eventually([&] { return transport->retire(); }));

    EXPECT_FALSE(connectRaw().closesWithin(500ms)) << "it waits for the next process";
    EXPECT_EQ(doorkeeper.admitted, 1);
}

TEST_F(DBusTransportTest, SurvivesPeersThatConnectAndHangUp) {
    for (int i = 0; i < 2000; ++i) {
        connectRaw();
    }

    // Until the last of them has been seen off there may be too many connections.
    EXPECT_TRUE(eventually([] { return Client().call("HelperVersion", "").has_value(); }));
    EXPECT_TRUE(eventually([&] { return doorkeeper.ended == doorkeeper.admitted; }));
}

TEST_F(DBusTransportTest, SurvivesGarbage) {
    const std::array garbages = {
        "x"sv,
        "\0AUTH NONSENSE\r\n"sv,
        "\0BEGIN\r\n"sv,
        "\0AUTH EXTERNAL 30\r\nBEGIN\r\nl\1\0\1\377\377\377\377\377\377"sv};
    for (const auto garbage : garbages) {
        const auto peer = connectRaw();
        peer.send(garbage);
        peer.finishWriting();
        EXPECT_TRUE(peer.closesWithin(5s)) << testing::PrintToString(garbage);
    }

    EXPECT_TRUE(Client().call("HelperVersion", ""));
}

TEST_F(DBusTransportTest, WaitsForNoRestOfWhatIsNoMessage) {
    auto peer = connectRaw();
    ASSERT_TRUE(peer.authenticate());

    auto garbage = test::RawMessage{}.bytes(1000);
    garbage.front() = 'x';
    peer.send(garbage);

    EXPECT_TRUE(peer.closesWithin(5s));
}

TEST_F(DBusTransportTest, EndsAPeerThatSpeaksAnotherVersionOfTheProtocol) {
    for (const std::uint8_t version : std::to_array<std::uint8_t>({0, 2, 3, 255})) {
        for (const bool isWhole : {true, false}) {
            auto peer = connectRaw();
            ASSERT_TRUE(peer.authenticate());
            const auto call = test::RawMessage{.version = version}.bytes();

            ASSERT_TRUE(peer.send(isWhole ? call : call.substr(0, 16)));

            ASSERT_TRUE(peer.closesWithin(DBusSession::arrivalLimit - 5s))
                << unsigned{version} << (isWhole ? ", a whole call" : ", the beginning of one");
        }
    }
}

TEST_F(DBusTransportTest, EndsAPeerThatAnnouncesMoreThanAMessageHas) {
    auto peer = connectRaw();
    ASSERT_TRUE(peer.authenticate());
    constexpr std::uint32_t tooMuch = 128U << 20U;
    const auto header = test::RawMessage{}.bytes();

    ASSERT_TRUE(
        peer.send(test::RawMessage{}.bytes(tooMuch - static_cast<std::uint32_t>(header.size()))));

    EXPECT_TRUE(peer.closesWithin(DBusSession::arrivalLimit - 5s)) << "without waiting for it";
}

TEST_F(DBusTransportTest, ServesOthersBesideAPeerThatNeverSpeaks) {
    const auto silent = connectRaw();

    EXPECT_TRUE(Client().call("HelperVersion", ""));
}

TEST_F(DBusTransportTest, DropsAPeerThatIsNotDoneWithTheHandshakeInTime) {
    const auto silent = connectRaw();
    const auto slow = connectRaw();
    slow.send("\0AUTH"sv);

    EXPECT_FALSE(silent.closesWithin(9s));
    EXPECT_TRUE(silent.closesWithin(2s));
    EXPECT_TRUE(slow.closesWithin(1s));
}

TEST_F(DBusTransportTest, KeepsOneUserToSixtyFourConnections) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 64; ++i) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_TRUE(clients.back()->call("HelperVersion", "")) << i;
    }

    EXPECT_TRUE(connectRaw().closesWithin(2s));
    clients.pop_back();

    EXPECT_TRUE(eventually([] { return Client().call("HelperVersion", "").has_value(); }));
}

TEST_F(DBusTransportTest, ServesManyConnectionsSideBySide) {
    std::vector<std::thread> threads;
    threads.reserve(16);
    std::atomic<int> answered = 0;
    for (int i = 0; i < 16; ++i) {
        threads.emplace_back([&] {
            Client client;
            for (int call = 0; call < 20; ++call) {
                answered += client.call("HelperVersion", "") ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(answered, 320);
}

TEST(ListeningSocketTest, IsOpenToEverybody) {
    const auto socket = openListeningSocket(0);

    EXPECT_EQ(test::modeOf(listeningSocketPath), 0666U);
    EXPECT_TRUE(test::connectTo(listeningSocketPath));
}

TEST(ListeningSocketTest, ReplacesASocketThatNobodyListensOn) {
    openListeningSocket(0);
    EXPECT_FALSE(test::connectTo(listeningSocketPath));

    const auto socket = openListeningSocket(0);

    EXPECT_TRUE(test::connectTo(listeningSocketPath));
}

TEST(ListeningSocketTest, LeavesAnotherHelpersSocketAlone) {
    const auto first = openListeningSocket(0);

    EXPECT_THAT(
        [] { openListeningSocket(0); },
        testing::ThrowsMessage<TransportError>(
            "Another helper listens on /run/com.brackwen.tarnvale.adminhelper.socket."));

    EXPECT_TRUE(test::connectTo(listeningSocketPath));
}

TEST(ListeningSocketTest, LooksForAnotherHelperWithoutConnectingToIt) {
    const auto first = openListeningSocket(0);

    EXPECT_THROW(openListeningSocket(0), TransportError);

    EXPECT_EQ(::accept4(first.get(), nullptr, nullptr, SOCK_CLOEXEC), -1);
    EXPECT_EQ(errno, EAGAIN) << "it would log that it has rejected a client";
}

TEST(ListeningSocketTest, APassedOneIsNothingThatAChildInherits) {
    constexpr int passed = 3;
    auto made = openListeningSocket(0);
    const UniqueFd other(::fcntl(made.get(), F_DUPFD_CLOEXEC, 10));
    made.reset();
    ASSERT_EQ(::dup2(other.get(), passed), passed);

    const auto taken = openListeningSocket(1);

    EXPECT_EQ(taken.get(), passed);
    EXPECT_EQ(::fcntl(passed, F_GETFD), FD_CLOEXEC);
}

TEST(ListeningSocketTest, LeavesNothingBehindThatItCannotOffer) {
    const std::string path = listeningSocketPath;
    const auto folder = path.substr(0, path.rfind('/'));
    const auto before = test::namesIn(folder);

    std::thread([] {
        test::refuseCall(SYS_listen, EADDRINUSE);
        EXPECT_THAT(
            [] { openListeningSocket(0); },
            testing::ThrowsMessage<TransportError>(
                "Could not offer /run/com.brackwen.tarnvale.adminhelper.socket: Address already "
                "in use."));
    }).join();

    EXPECT_EQ(test::namesIn(folder), before);
}

TEST(ListeningSocketTest, LeavesAnythingElseAlone) {
    test::put(listeningSocketPath, "in the way");

    EXPECT_THAT(
        [] { openListeningSocket(0); },
        testing::ThrowsMessage<TransportError>(
            "/run/com.brackwen.tarnvale.adminhelper.socket is in the way: it isn't a socket."));

    EXPECT_EQ(test::contentOf(listeningSocketPath), "in the way");
}

}  // namespace
}  // namespace tarnvale::platform
