// SPDX-License-Identifier: MIT
//
// Peers that want to do the service harm. Whatever they do, others are served meanwhile, and when
// they have gone nothing is left of them: no descriptor, no thread, no memory.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/ProcessUsage.h"
#include "tests/support/RawPeer.h"
#include "tests/support/ScriptedPfctl.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/UnixSockets.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using support::UniqueFd;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

constexpr bool isSanitized = !std::string_view(TARNVALE_SANITIZE).empty();

constexpr int maxForUser = 64;
constexpr int maxInAll = 256;

/// How much the allocator may keep of many threads' small pieces.
constexpr std::int64_t maxKeptKiB = 8192;

/// The processor time that the process has used.
std::chrono::milliseconds processorTimeOf(pid_t pid) {
    const std::string status = contentOf(processFile(pid, "stat"));
    std::istringstream fields(status.substr(status.rfind(')') + 2));
    std::string skipped;
    constexpr int before = 11;
    for (int i = 0; i < before; ++i) {
        fields >> skipped;
    }
    std::int64_t user = 0;
    std::int64_t system = 0;
    fields >> user >> system;
    return std::chrono::milliseconds((user + system) * 1000 / ::sysconf(_SC_CLK_TCK));
}

/// From here on, what `peakOf` says counts.
void forgetPeakOf(pid_t pid) {
    constexpr const char* forgetPeak = "5";
    put(processFile(pid, "clear_refs"), forgetPeak);
}

/// The most memory that the process has had, in KiB.
std::int64_t peakOf(pid_t pid) {
    return sumOf(processFile(pid, "status"), "VmHWM:");
}

bool eventually(const std::function<bool()>& condition, std::chrono::seconds time = 20s) {
    const auto deadline = Clock::now() + time;
    while (!condition()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

/// A service, a client of it that has an open connection all the time, and a hostile program that
/// nevertheless has the right signature: another user has taken it over.
class HostileTest : public testing::Test {
protected:
    /// The hostile program's user.
    static constexpr uid_t attacker = secondUser;

    void SetUp() override {
        TARNVALE_NEEDS(usersProcesses);
        // Each of the allocator's arenas keeps free memory, and how many there are depends on the
        // machine and on what else it does.
        ::setenv("MALLOC_ARENA_MAX", "4", 1);
        service.emplace();
        ::unsetenv("MALLOC_ARENA_MAX");
        const std::size_t idleThreads = usage().threads;
        witness.emplace(lab.client, administrator);
        hostile.emplace(lab.client, attacker);
        // Nothing is measured before the first use has loaded what stays.
        EXPECT_TRUE(isServed());
        EXPECT_TRUE(lend().authenticate());
        EXPECT_TRUE(eventually([&] { return usage().threads == idleThreads + 1; }));
        before = usage();
    }

    ProcessUsage usage() { return usageOf(service->pid()); }

    /// A connection of the hostile program.
    RawPeer lend() { return RawPeer(hostile->lend()); }

    /// Whether the client with the open connection is served, and a new one.
    bool isServed() {
        ServiceClient another(lab.client, firstUser);
        const Texts expected{helperVersion()};
        return witness->call("HelperVersion") == expected &&
               another.call("HelperVersion") == expected;
    }

    /// When all peers have gone.
    void expectNothingLeft() {
        EXPECT_TRUE(eventually([this] {
            const auto now = usage();
            return now.descriptors == before.descriptors && now.threads == before.threads;
        })) << before.descriptors
            << " descriptors before, " << usage().descriptors << " now; " << before.threads
            << " threads before, " << usage().threads << " now";
        if (isSanitized) {
            std::cout << "Memory is not looked at: the sanitizer keeps what has been freed.\n";
            return;
        }
        EXPECT_TRUE(eventually([this] {
            return usage().privateKiB <= before.privateKiB + maxKeptKiB;
        })) << before.privateKiB
            << " KiB before, " << usage().privateKiB << " KiB now";
    }

    ServiceLab lab;
    std::optional<Service> service;
    std::optional<ServiceClient> witness;
    std::optional<ServiceClient> hostile;
    ProcessUsage before;
};

TEST_F(HostileTest, EveryHandshakeThatIsNoneEndsTheConnection) {
    const std::string longLine(std::size_t{1} << 20U, 'A');
    for (const std::string& said :
         {std::string("AUTH EXTERNAL\r\n"),
          std::string("\0AUTH ", 6) + longLine + "\r\n",
          std::string(1, '\0') + longLine,
          std::string("\0\0\0\0", 4) + longLine,
          std::string("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")}) {
        const RawPeer peer = lend();

        peer.send(said);

        EXPECT_TRUE(peer.closesWithin(5s)) << said.substr(0, 20);
    }
    EXPECT_TRUE(isServed());
    expectNothingLeft();
}

TEST_F(HostileTest, BytesThatAreNoMessageEndTheConnection) {
    constexpr auto tooLong = std::uint32_t{1} << 27U;
    constexpr std::uint32_t maxLength = 0xFFFFFFFF;
    const RawMessage call;
    for (const std::string& said :
         {std::string("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"),
          std::string(4096, '\0'),
          std::string(4096, '\xFF'),
          RawMessage{.version = 0}.bytes(),
          RawMessage{.version = 2}.bytes(),
          RawMessage{.version = 255}.bytes(),
          call.bytes(tooLong + 1),
          call.bytes(maxLength),
          call.bytes(0, tooLong + 1),
          call.bytes(0, maxLength),
          call.bytes(maxLength, maxLength)}) {
        RawPeer peer = lend();
        ASSERT_TRUE(peer.authenticate());

        peer.send(said);

        EXPECT_TRUE(peer.closesWithin(5s)) << testing::PrintToString(said.substr(0, 20));
    }
    EXPECT_TRUE(isServed());
    expectNothingLeft();
}

TEST_F(HostileTest, AMessageThatBreaksOffIsNotServed) {
    const std::string call =
        RawMessage{.member = "SetTarnvaleResolver", .signature = "b", .body = wireNumber(1)}
            .bytes();
    ServiceClient client(lab.client, administrator);
    for (std::size_t size = 0; size < call.size(); size += 7) {
        RawPeer peer(client.lend());
        ASSERT_TRUE(peer.authenticate());
        ASSERT_TRUE(peer.send(call.substr(0, size)));

        peer.finishWriting();

        EXPECT_TRUE(peer.closesWithin(5s)) << size;
    }
    EXPECT_FALSE(exists("/etc/resolver/tvx"));
    EXPECT_TRUE(isServed());
    client.kill();
    expectNothingLeft();
}

TEST_F(HostileTest, ACallThatCannotBeMeantIsAnsweredWithAnError) {
    const std::string text = wireText("x");
    const std::string deepPath = [] {
        std::string path;
        for (int i = 0; i < 30'000; ++i) {
            path += "/a";
        }
        return path;
    }();
    const std::vector<std::pair<RawMessage, std::string>> calls = {
        {{.member = "HelperVersion", .signature = "s", .body = text}, "InvalidArgs"},
        {{.member = "ApplyFirewall"}, "InvalidArgs"},
        {{.member = "ApplyFirewall", .signature = "s", .body = text}, "InvalidArgs"},
        {{.member = "ApplyFirewall", .signature = "ayay", .body = wireNumber(0) + wireNumber(0)},
         "InvalidArgs"},
        {{.member = "CreateVLAN", .signature = "sss", .body = ""}, "InvalidArgs"},
        {{.member = "SetTarnvaleResolver", .signature = "u", .body = wireNumber(1)}, "InvalidArgs"},
        {{.member = "SetTarnvaleResolver", .signature = "(b)", .body = wireNumber(1)},
         "InvalidArgs"},
        {{.member = "FormatDisk"}, "UnknownMethod"},
        {{.member = std::string(255, 'M')}, "UnknownMethod"},
        {{.interface = "com.example.other"}, "Unknown"},
        {{.path = "/"}, "Unknown"},
        {{.path = "/com/brackwen/tarnvale/adminhelper/deeper"}, "UnknownObject"},
        {{.path = deepPath}, "UnknownObject"},
        {{.member = "FirewallReport", .unknownField = std::string(70'000, 'x')}, "LimitsExceeded"},
    };
    ServiceClient client(lab.client, administrator);
    RawPeer peer(client.lend());
    ASSERT_TRUE(peer.authenticate());
    for (const auto& [call, error] : calls) {
        const auto usedBefore = processorTimeOf(service->pid());
        ASSERT_TRUE(peer.send(call.bytes()));

        const auto answer = peer.receive();

        EXPECT_LT(processorTimeOf(service->pid()) - usedBefore, 500ms) << call.member;
        ASSERT_TRUE(answer) << call.member << " " << call.signature;
        EXPECT_EQ(answer->type, errorReply) << call.member << " " << call.signature;
        EXPECT_TRUE(answer->says("org.freedesktop.DBus.Error." + error)) << answer->bytes;
    }
    EXPECT_FALSE(exists("/etc/resolver/tvx"));
    EXPECT_TRUE(isServed());
    peer.close();
    client.kill();
    expectNothingLeft();
}

TEST_F(HostileTest, WhatLiesAboutItsBodyIsNotServed) {
    ServiceClient client(lab.client, administrator);
    for (const RawMessage& message :
         {RawMessage{.member = "SetTarnvaleResolver", .signature = "b", .body = "\1"},
          RawMessage{.member = "DeleteVLAN", .signature = "s", .body = wireNumber(0xFFFFFFFF)},
          RawMessage{.member = "DeleteVLAN", .signature = "s", .body = wireText("\xFF\xFE")},
          RawMessage{.member = "ApplyFirewall", .signature = "ay", .body = wireNumber(1U << 26U)},
          RawMessage{.member = "Apply\nFirewall"},
          RawMessage{.member = "HelperVersion", .path = "no/path"},
          RawMessage{.member = "HelperVersion", .path = ""},
          RawMessage{.member = "HelperVersion", .serial = 0},
          RawMessage{.member = "HelperVersion", .descriptors = 1000}}) {
        RawPeer peer(client.lend());
        ASSERT_TRUE(peer.authenticate());
        ASSERT_TRUE(peer.send(message.bytes()));
        ASSERT_TRUE(peer.send(RawMessage{.serial = 77}.bytes()));

        // An error, silence or the end of the connection; never a success.
        while (const auto answer = peer.receive()) {
            if (answer->says(wireText(helperVersion()))) {
                break;
            }
            EXPECT_EQ(answer->type, errorReply) << message.member << " " << message.signature;
        }
    }
    EXPECT_FALSE(exists("/etc/resolver/tvx"));
    EXPECT_TRUE(isServed());
    client.kill();
    expectNothingLeft();
}

TEST_F(HostileTest, WhatIsNoCallIsPassedOver) {
    RawPeer peer = lend();
    ASSERT_TRUE(peer.authenticate());
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(peer.send(
            RawMessage{.member = "SetTarnvaleResolver", .type = signalMessage}.bytes() +
            RawMessage{
                .member = "", .type = methodReturn, .path = "", .interface = "", .replySerial = 1}
                .bytes() +
            RawMessage{
                .member = "com.example.Error",
                .type = errorReply,
                .path = "",
                .interface = "",
                .replySerial = 0xFFFFFFFF}
                .bytes()));
    }
    ASSERT_TRUE(peer.send(RawMessage{.serial = 4711}.bytes()));

    const auto answer = peer.receive();

    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->type, methodReturn);
    EXPECT_TRUE(answer->says(wireText(helperVersion())));
    peer.close();
    expectNothingLeft();
}

TEST_F(HostileTest, ACallThatWantsNoReplyIsMadeAndNotAnswered) {
    ServiceClient client(lab.client, administrator);
    RawPeer peer(client.lend());
    ASSERT_TRUE(peer.authenticate());

    ASSERT_TRUE(peer.send(
        RawMessage{
            .member = "SetTarnvaleResolver",
            .signature = "b",
            .body = wireNumber(1),
            .flags = noReplyExpected}
            .bytes() +
        RawMessage{.member = "FormatDisk", .flags = noReplyExpected}.bytes() +
        RawMessage{.serial = 3}.bytes()));
    const auto answer = peer.receive();

    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->says(wireText(helperVersion()))) << "the only answer is to the last call";
    EXPECT_TRUE(exists("/etc/resolver/tvx"));
}

TEST_F(HostileTest, AFirstCallMayComeWithTheEndOfTheHandshake) {
    RawPeer peer = lend();
    std::string all(RawPeer::handshakeLines);
    for (std::uint32_t serial = 1; serial <= 20; ++serial) {
        all += RawMessage{.serial = serial}.bytes();
    }

    ASSERT_TRUE(peer.send(all));

    ASSERT_TRUE(peer.authenticate());
    for (int i = 0; i < 20; ++i) {
        const auto answer = peer.receive();
        ASSERT_TRUE(answer) << i;
        EXPECT_TRUE(answer->says(wireText(helperVersion())));
    }
}

TEST_F(HostileTest, AnUrgentByteKeepsNobodyBusy) {
    RawPeer peer = lend();
    ASSERT_TRUE(peer.authenticate());
    const auto usedBefore = processorTimeOf(service->pid());

    ASSERT_EQ(::send(peer.socket(), "!", 1, MSG_OOB | MSG_NOSIGNAL), 1);
    std::this_thread::sleep_for(1s);

    EXPECT_LT(processorTimeOf(service->pid()) - usedBefore, 300ms);
    EXPECT_TRUE(isServed());
    peer.close();
    expectNothingLeft();
}

TEST_F(HostileTest, AConnectionThatThereIsNoDescriptorForKeepsNobodyBusy) {
    rlimit usual{};
    ASSERT_EQ(::prlimit(service->pid(), RLIMIT_NOFILE, nullptr, &usual), 0);
    const rlimit exhausted{.rlim_cur = 0, .rlim_max = usual.rlim_max};
    ASSERT_EQ(::prlimit(service->pid(), RLIMIT_NOFILE, &exhausted, nullptr), 0);
    const auto usedBefore = processorTimeOf(service->pid());

    RawPeer peer = lend();
    std::this_thread::sleep_for(1s);

    EXPECT_LT(processorTimeOf(service->pid()) - usedBefore, 300ms);
    ASSERT_EQ(::prlimit(service->pid(), RLIMIT_NOFILE, &usual, nullptr), 0);
    EXPECT_TRUE(peer.authenticate()) << "it has waited";
    peer.close();
    expectNothingLeft();
}

TEST_F(HostileTest, OneUserHasSixtyFourConnections) {
    std::vector<RawPeer> peers;
    for (int i = 0; i < maxForUser; ++i) {
        peers.push_back(lend());
        ASSERT_TRUE(peers.back().authenticate()) << i;
    }

    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(lend().closesWithin(5s));
    }
    EXPECT_EQ(usage().threads, before.threads + maxForUser);
    EXPECT_TRUE(isServed());

    peers.pop_back();
    EXPECT_TRUE(eventually([this] { return lend().authenticate(); }));
    peers.clear();
    expectNothingLeft();
}

TEST_F(HostileTest, AllUsersTogetherHaveTwoHundredAndFiftySixConnections) {
    std::vector<std::unique_ptr<ServiceClient>> users;
    std::vector<RawPeer> peers;
    /// How many connections of a new user are taken.
    const auto fill = [&](uid_t uid) {
        users.push_back(std::make_unique<ServiceClient>(lab.client, uid));
        for (int taken = 0;; ++taken) {
            RawPeer peer(users.back()->lend());
            if (!peer.authenticate()) {
                return taken;
            }
            peers.push_back(std::move(peer));
        }
    };
    // With the witness's own one is taken already, and 32 are kept for administrators.
    constexpr uid_t firstOfMany = 2000;
    EXPECT_EQ(fill(firstOfMany), maxForUser);
    EXPECT_EQ(fill(firstOfMany + 1), maxForUser);
    EXPECT_EQ(fill(firstOfMany + 2), 48);
    EXPECT_EQ(fill(firstOfMany + 3), 24);
    EXPECT_TRUE(isServed()) << "a user who comes after four greedy ones";
    for (uid_t uid = firstOfMany + 4; fill(uid) > 0; ++uid) {
    }
    EXPECT_EQ(peers.size(), 223U);

    EXPECT_TRUE(lend().closesWithin(5s));
    EXPECT_THAT(
        ServiceClient(lab.client, administrator).call("HelperVersion"),
        ElementsAre(helperVersion()));
    EXPECT_EQ(fill(rootUser), 32);
    EXPECT_EQ(usage().threads, before.threads + maxInAll - 1);
    EXPECT_TRUE(RawPeer(ServiceClient(lab.client, administrator).lend()).closesWithin(5s));
    EXPECT_THAT(witness->call("HelperVersion"), ElementsAre(helperVersion()));

    peers.clear();
    EXPECT_TRUE(eventually([this] { return isServed(); }));
    expectNothingLeft();
}

TEST_F(HostileTest, SubordinateUsersHaveThePlacesOfTheirOwner) {
    put("/etc/subuid", "eve:100000:65536\n");
    std::vector<std::unique_ptr<ServiceClient>> users;
    std::vector<RawPeer> peers;
    int taken = 0;
    for (uid_t uid = 100'000; uid < 100'006; ++uid) {
        users.push_back(std::make_unique<ServiceClient>(lab.client, uid));
        for (int count = 0; count < 16; ++count) {
            peers.emplace_back(users.back()->lend());
            taken += peers.back().authenticate() ? 1 : 0;
        }
    }

    EXPECT_EQ(taken, maxForUser);
    EXPECT_TRUE(lend().closesWithin(5s)) << "the owner himself";
    EXPECT_TRUE(isServed());
    peers.clear();
    expectNothingLeft();
}

TEST_F(HostileTest, ThousandsOfRejectionsLeaveTheLogAsItIs) {
    ServiceClient stranger(clientProgram, attacker);
    const auto knock = [&stranger](int times) {
        for (int i = 0; i < times; ++i) {
            stranger.lend();
        }
    };
    knock(5000);
    const auto end = Clock::now() + 1s;
    while (Clock::now() < end) {
        stranger.lend();
    }

    const auto log = logMessages();
    EXPECT_EQ(log.front(), listeningMessage());
    // As many as are forgiven, and those that were under way when they were too many.
    EXPECT_LT(log.size(), 150U);
    EXPECT_TRUE(isServed());
    // On a busy machine one rejection may be forgotten before the next program is there.
    bool isTurnedAway = false;
    for (int attempt = 0; attempt < 20 && !isTurnedAway; ++attempt) {
        knock(50);
        isTurnedAway = lend().closesWithin(1s);
    }
    EXPECT_TRUE(isTurnedAway) << "his other programs are not looked at either";
}

TEST_F(HostileTest, TenThousandStrangersInARowKeepNobodyOut) {
    constexpr int strangers = 10'000;
    for (int i = 0; i < strangers; ++i) {
        const auto stranger = connectToService();
        ASSERT_TRUE(stranger) << i;
        ::send(stranger.get(), "\0AUTH EXTERNAL\r\n", 16, MSG_NOSIGNAL);
        if (i % 1000 == 0) {
            EXPECT_TRUE(isServed());
        }
    }
    EXPECT_TRUE(isServed());
    expectNothingLeft();
}

TEST_F(HostileTest, AHugeProgramWithAGenuineSignatureCostsLittle) {
    const std::string signature = contentOf(lab.client).substr(contentOf(clientProgram).size());
    // One that is just small enough to be read whole, and one that is too large.
    for (const std::uintmax_t size : {std::uintmax_t{63} << 20U, std::uintmax_t{4} << 30U}) {
        const std::string program = "/tmp/huge";
        fs::remove(program);
        fs::copy_file(clientProgram, program);
        fs::resize_file(program, size);
        std::ofstream(program, std::ios::binary | std::ios::app) << signature;
        const auto usedBefore = processorTimeOf(service->pid());
        ServiceClient first(program, attacker);
        ServiceClient second(program, attacker);
        first.begin("HelperVersion");
        second.begin("HelperVersion");

        EXPECT_TRUE(isServed());
        EXPECT_THAT(first.reply(), ElementsAre("closed"));
        EXPECT_THAT(second.reply(), ElementsAre("closed"));
        EXPECT_LT(processorTimeOf(service->pid()) - usedBefore, isSanitized ? 20s : 5s);
    }
    expectNothingLeft();
}

TEST_F(HostileTest, AFullDescriptorTableIsNotAskedAgainAndAgain) {
    const rlimit small{.rlim_cur = 40, .rlim_max = 4096};
    rlimit usual{};
    // A check opens a file. The verdict on a program that was written a moment ago is not kept, so
    // wait until it is.
    std::this_thread::sleep_for(3s);
    ASSERT_TRUE(isServed());
    ASSERT_EQ(::prlimit(service->pid(), RLIMIT_NOFILE, &small, &usual), 0);
    std::vector<RawPeer> peers;
    peers.reserve(maxForUser);
    for (int i = 0; i < maxForUser; ++i) {
        peers.push_back(lend());
    }
    const auto usedBefore = processorTimeOf(service->pid());

    std::this_thread::sleep_for(1s);

    EXPECT_LT(processorTimeOf(service->pid()) - usedBefore, 300ms);
    EXPECT_THAT(witness->call("HelperVersion"), ElementsAre(helperVersion()));
    peers.clear();
    EXPECT_TRUE(eventually([this] { return isServed(); }));
    expectNothingLeft();
}

/// The time limits of the service, all at once because each takes its time.
TEST_F(HostileTest, EveryWaitHasAnEnd) {
    const std::string call = RawMessage{}.bytes();
    const auto begin = Clock::now();
    struct Slow {
        std::string name;
        RawPeer peer;
        std::function<void(const RawPeer&)> eachTime;
        std::chrono::seconds limit;
        std::optional<std::chrono::milliseconds> closedAfter{};
    };
    const auto nothing = [](const RawPeer&) {};
    const auto sendByte = [](const RawPeer& peer) { peer.sendNow("A"); };
    std::vector<Slow> peers;
    const auto add = [&](const char* name, auto eachTime, std::chrono::seconds limit) -> RawPeer& {
        peers.push_back({.name = name, .peer = lend(), .eachTime = eachTime, .limit = limit});
        return peers.back().peer;
    };

    add("says nothing", nothing, 10s);
    add("says the NUL", nothing, 10s).send(std::string_view("\0", 1));
    add("a byte at a time", sendByte, 10s).send(std::string_view("\0", 1));
    add("never begins", nothing, 10s).send(RawPeer::handshakeLines.substr(0, 22));

    auto& half = add("half a message", nothing, 30s);
    ASSERT_TRUE(half.authenticate());
    // A sanitizer's realloc copies all of it whenever something arrives.
    constexpr std::uint32_t large = isSanitized ? 1'000'000 : 100'000'000;
    const auto announced = [](std::uint32_t size) {
        return RawMessage{
            .member = "ApplyFirewall", .signature = "ay", .body = wireNumber(size - 4)}
            .bytes(size);
    };
    ASSERT_TRUE(half.send(announced(large) + std::string(large / 3, 'x')));

    auto& slowly = add("a message slowly", sendByte, 30s);
    ASSERT_TRUE(slowly.authenticate());
    ASSERT_TRUE(slowly.send(announced(1'000'000)));

    auto& few = add("takes no reply", nothing, 30s);
    ASSERT_TRUE(few.authenticate());
    ASSERT_TRUE(few.send(call));

    auto& many = add(
        "takes no reply and asks on", [&](const RawPeer& peer) { peer.sendNow(call); }, 40s);
    ASSERT_TRUE(many.authenticate());
    while (many.sendNow(call) == call.size()) {
    }

    auto& reports = add("takes no report", nothing, 30s);
    ASSERT_TRUE(reports.authenticate());
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(reports.send(
            RawMessage{.member = "Introspect", .interface = "org.freedesktop.DBus.Introspectable"}
                .bytes()));
    }

    RawPeer patient = lend();
    ASSERT_TRUE(patient.authenticate());

    constexpr auto maxAwaitedLimit = 31s;
    const auto isWaitedFor = [&](const Slow& slow) {
        return !slow.closedAfter && slow.limit <= maxAwaitedLimit;
    };
    // A busy machine takes its time to get so far.
    const auto prepared = Clock::now() - begin;
    while (Clock::now() - begin < prepared + 34s &&
           std::any_of(peers.begin(), peers.end(), isWaitedFor)) {
        std::this_thread::sleep_for(500ms);
        EXPECT_TRUE(isServed());
        for (auto& slow : peers) {
            if (!slow.closedAfter && slow.peer.isClosed()) {
                slow.closedAfter =
                    std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
            } else if (!slow.closedAfter) {
                slow.eachTime(slow.peer);
            }
        }
    }

    for (const auto& slow : peers) {
        if (slow.limit > maxAwaitedLimit) {
            continue;
        }
        ASSERT_TRUE(slow.closedAfter) << slow.name;
        EXPECT_GE(*slow.closedAfter, slow.limit - 200ms) << slow.name;
        EXPECT_LE(*slow.closedAfter, prepared + slow.limit + (isSanitized ? 4s : 3s)) << slow.name;
    }
    ASSERT_TRUE(patient.send(call));
    EXPECT_TRUE(patient.receive()) << "who has nothing to say may stay";
    patient.close();
    peers.clear();
    expectNothingLeft();
}

/// A report of 4 MB.
class HostileToReportsTest : public HostileTest {
protected:
    void SetUp() override {
        HostileTest::SetUp();
        pfctl.answer("*-sr*", "head -c 4000000 /dev/zero | tr '\\0' r");
    }

    ScriptedPfctl pfctl;
};

TEST_F(HostileToReportsTest, RepliesThatNobodyTakesDoNotPileUp) {
    RawPeer peer = lend();
    ASSERT_TRUE(peer.authenticate());
    const std::string call = RawMessage{.member = "FirewallReport"}.bytes();
    constexpr int calls = 200;
    for (int i = 0; i < calls; ++i) {
        ASSERT_TRUE(peer.send(call));
    }
    std::this_thread::sleep_for(2s);

    if (!isSanitized) {
        EXPECT_LT(usage().privateKiB, before.privateKiB + 24'000);
    }
    EXPECT_LT(pfctl.calls().size(), 20U) << "requests are read while replies wait";
    EXPECT_TRUE(isServed());

    // However slowly they are taken, each arrives whole.
    for (int i = 0; i < 5; ++i) {
        const auto report = peer.receive();
        ASSERT_TRUE(report);
        EXPECT_GT(report->bytes.size(), 4'000'000U);
    }
    peer.close();
    expectNothingLeft();
}

TEST_F(HostileToReportsTest, SixtyFourWhoWaitForAReportTakeTheMemoryOfAFew) {
    constexpr std::size_t size = 9'300'000;
    ScriptedPfctl larger;
    larger.answer("*-sr", "head -c " + std::to_string(size) + " /dev/zero | tr '\\0' r");
    std::vector<RawPeer> peers;
    for (int i = 0; i < maxForUser; ++i) {
        peers.push_back(lend());
        ASSERT_TRUE(peers.back().authenticate());
    }
    forgetPeakOf(service->pid());
    const auto idle = peakOf(service->pid());

    for (const auto& peer : peers) {
        ASSERT_TRUE(peer.send(RawMessage{.member = "FirewallReport"}.bytes()));
    }
    EXPECT_TRUE(isServed());
    std::vector<std::future<std::size_t>> sizes;
    sizes.reserve(peers.size());
    for (auto& peer : peers) {
        sizes.push_back(std::async(std::launch::async, [&peer] {
            const auto report = peer.receive();
            return report ? report->bytes.size() : 0;
        }));
    }

    for (auto& received : sizes) {
        EXPECT_GT(received.get(), size);
    }
    EXPECT_LE(larger.calls().size(), 8U) << "two for each report";
    if (!isSanitized) {
        EXPECT_LT(peakOf(service->pid()) - idle, 120'000);
    }
    peers.clear();
    expectNothingLeft();
}

TEST_F(HostileToReportsTest, ReportsThatNobodyTakesKeepNoOtherUserWaiting) {
    std::vector<RawPeer> peers;
    for (int i = 0; i < maxForUser; ++i) {
        peers.push_back(lend());
        ASSERT_TRUE(peers.back().authenticate());
        ASSERT_TRUE(peers.back().send(RawMessage{.member = "FirewallReport"}.bytes()));
    }
    std::this_thread::sleep_for(2s);

    const auto begin = Clock::now();
    ServiceClient client(lab.client, firstUser);
    EXPECT_THAT(
        client.call("FirewallReport"),
        ElementsAre(testing::SizeIs(testing::Gt(4'000'000U)), "nil"));
    EXPECT_LT(Clock::now() - begin, isSanitized ? 10s : 2s);
    if (!isSanitized) {
        EXPECT_LT(usage().privateKiB, before.privateKiB + 60'000);
    }

    // Whoever waits and hangs up leaves at once.
    peers.clear();
    client.kill();
    expectNothingLeft();
}

/// A call that brings so many bytes.
std::string largeCall(std::size_t size) {
    return RawMessage{
        .member = "ApplyFirewall",
        .signature = "ay",
        .body = wireNumber(size) + std::string(size, ' ')}
        .bytes();
}

TEST_F(HostileTest, HalfSentMessagesKeepNoOtherUserWaiting) {
    const auto sendAlmostAll = [](const RawPeer& peer, std::size_t size) {
        const std::string call = largeCall(size);
        peer.send(std::string_view(call).substr(0, call.size() - 1), 300ms);
    };
    constexpr std::size_t medium = isSanitized ? 2'000'000 : 10'000'000;
    constexpr std::size_t large = isSanitized ? 20'000'000 : 120'000'000;
    std::vector<RawPeer> peers;
    for (int i = 0; i < 24; ++i) {
        peers.push_back(lend());
        ASSERT_TRUE(peers.back().authenticate());
    }
    ServiceClient another(lab.client, firstUser);

    for (std::size_t i = 0; i < peers.size(); ++i) {
        sendAlmostAll(peers[i], i % 3 == 0 ? large : medium);
    }

    if (!isSanitized) {
        // One large one, one of the others, and the beginnings of each.
        EXPECT_LT(usage().privateKiB, before.privateKiB + 150'000);
    }
    const auto begin = Clock::now();
    RawPeer good(another.lend());
    ASSERT_TRUE(good.authenticate());
    ASSERT_TRUE(good.send(largeCall(medium)));
    EXPECT_TRUE(good.receive());
    EXPECT_TRUE(isServed());
    EXPECT_LT(Clock::now() - begin, 10s);

    // Whoever waits and hangs up leaves at once, and so does whoever breaks off.
    peers.clear();
    good.close();
    another.kill();
    expectNothingLeft();
}

TEST_F(HostileTest, LargeRequestsWaitForEachOther) {
    for (const std::size_t size :
         {std::size_t{12'000'000}, std::size_t{isSanitized ? 20'000'000 : 60'000'000}}) {
        std::vector<RawPeer> peers;
        std::vector<std::future<bool>> served;
        for (int i = 0; i < 6; ++i) {
            peers.push_back(lend());
            ASSERT_TRUE(peers.back().authenticate());
        }
        forgetPeakOf(service->pid());
        const std::string call = largeCall(size);
        served.reserve(peers.size());
        for (auto& peer : peers) {
            served.push_back(std::async(
                std::launch::async, [&] { return peer.send(call) && peer.receive().has_value(); }));
        }

        for (auto& answered : served) {
            EXPECT_TRUE(answered.get()) << size;
        }
        if (!isSanitized) {
            EXPECT_LT(peakOf(service->pid()), 2 * static_cast<std::int64_t>(size) / 1024 + 20'000);
        }
    }
    expectNothingLeft();
}

TEST_F(HostileToReportsTest, WhatDBusCannotCarryIsReplaced) {
    pfctl.answer("-si", R"(printf 'Status: \377\000on\n')");
    ServiceClient client(lab.client, firstUser);

    const auto report = client.call("FirewallReport");

    ASSERT_EQ(report.size(), 2U);
    EXPECT_EQ(report[1], "nil");
    EXPECT_THAT(report[0], testing::StartsWith("== pf status ==\nStatus: \uFFFD\uFFFDon\n"));
}

/// A TCP socket with data that nobody will take: closing it lingers for an hour.
UniqueFd lingeringSocket() {
    const UniqueFd listening(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(listening.get(), generic, size), 0);
    EXPECT_EQ(::listen(listening.get(), 1), 0);
    EXPECT_EQ(::getsockname(listening.get(), generic, &size), 0);
    EXPECT_EQ(run({"/sbin/ip", "link", "set", "lo", "up"}).status, 0);
    UniqueFd sending(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(sending.get(), generic, size), 0);
    // Nobody reads from the accepted end; kept open, it takes only as much as it can hold.
    static std::vector<UniqueFd> kept;
    kept.emplace_back(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    constexpr linger anHour{.l_onoff = 1, .l_linger = 3600};
    EXPECT_EQ(::setsockopt(sending.get(), SOL_SOCKET, SO_LINGER, &anHour, sizeof anHour), 0);
    const std::string bytes(1U << 16U, 'x');
    while (::send(sending.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
    return sending;
}

/// Connections that wait in systemd's socket when the helper starts: it could not refuse what was
/// sent on them.
class HostileBeforeStartTest : public testing::Test {
protected:
    void SetUp() override { TARNVALE_NEEDS(usersProcesses); }

    ServiceLab lab;
    UniqueFd listening = listenAt(servicePath);

    /// Starts the service on what is waiting; it serves a client within ten seconds.
    void expectServed() {
        Service service({.program = helperProgram, .listeningSocket = listening.get()});
        const auto begin = Clock::now();
        ServiceClient client(lab.client, firstUser);
        EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
        EXPECT_LT(Clock::now() - begin, 10s);
    }
};

TEST_F(HostileBeforeStartTest, PassedDescriptorsAreNotKept) {
    ServiceClient hostile(lab.client, secondUser);
    const UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    constexpr std::size_t atOnce = 250;  // the kernel's bound is 253
    std::vector<RawPeer> peers;
    for (int i = 0; i < 8; ++i) {
        peers.emplace_back(hostile.lend());
        for (int part = 0; part < 4; ++part) {
            ASSERT_TRUE(peers.back().sendWithDescriptor(
                part == 0 ? std::string_view("\0", 1) : "A", file.get(), atOnce));
        }
    }
    Service service({.program = helperProgram, .listeningSocket = listening.get()});

    for (const auto& peer : peers) {
        EXPECT_TRUE(peer.closesWithin(5s));
    }
    ServiceClient client(lab.client, firstUser);
    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
    constexpr std::size_t few = 20;
    EXPECT_TRUE(eventually([&] { return usageOf(service.pid()).descriptors < few; }));
}

TEST_F(HostileBeforeStartTest, WhoeverHasHungUpIsPassedOver) {
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(connectToService());
    }

    expectServed();

    EXPECT_THAT(logMessages(), ElementsAre(listeningMessage())) << "nobody was checked";
}

TEST_F(HostileBeforeStartTest, ALingeringDescriptorHoldsNobodyUp) {
    constexpr int more = 10;
    std::vector<UniqueFd> peers;
    for (int i = 0; i < maxForUser + more; ++i) {
        peers.push_back(connectToService());
        const RawPeer peer(UniqueFd(::fcntl(peers.back().get(), F_DUPFD_CLOEXEC, 3)));
        ASSERT_TRUE(peer.sendWithDescriptor("x", lingeringSocket().get(), 1));
    }

    expectServed();
}

/// A signed copy of a D-Bus tool; none where the tool is not installed.
std::optional<std::string> signedTool(const ServiceLab& lab, const std::string& name) {
    const std::string program = "/usr/bin/" + name;
    if (!exists(program)) {
        return std::nullopt;
    }
    return ServiceLab::signCopy(program, applicationIdentifier, lab.development, "/tmp/" + name);
}

TEST_F(HostileTest, SystemdsOwnToolIsAClient) {
    const auto tool = signedTool(lab, "busctl");
    if (!tool) {
        GTEST_SKIP() << "busctl is not installed (package systemd)";
    }

    const auto finished = run(
        {*tool,
         std::string("--address=unix:path=") + servicePath,
         "call",
         "any.name",
         "/com/brackwen/tarnvale/adminhelper",
         "com.brackwen.tarnvale.adminhelper",
         "HelperVersion"});

    EXPECT_EQ(finished.output, "as 1 \"" + helperVersion() + "\"\n") << finished.error;
}

TEST_F(HostileTest, GLibsOwnToolIsAClient) {
    const auto tool = signedTool(lab, "gdbus");
    if (!tool) {
        GTEST_SKIP() << "gdbus is not installed (package libglib2.0-bin)";
    }

    const auto finished = run(
        {*tool,
         "call",
         "--address",
         std::string("unix:path=") + servicePath,
         "--dest",
         "any.name",
         "--object-path",
         "/com/brackwen/tarnvale/adminhelper",
         "--method",
         "com.brackwen.tarnvale.adminhelper.HelperVersion"});

    EXPECT_EQ(finished.output, "(['" + helperVersion() + "'],)\n") << finished.error;
}

}  // namespace
}  // namespace tarnvale::test
