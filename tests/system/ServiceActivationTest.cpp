// SPDX-License-Identifier: MIT
//
// Where the service's socket comes from: systemd passes it, or the helper makes it. And when
// systemd learns that the service has started.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/dbus/ListeningSocket.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PolicyText.h"
#include "tests/support/ScriptedPfctl.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/UnixSockets.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using support::UniqueFd;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

constexpr const char* notListening =
    "TarnvaleAdminHelper: The descriptor that was passed is no listening Unix stream socket.\n";

std::string store() {
    return storeText({{.key = "501", .networks = {NetworkText()}}});
}

ino_t inodeOf(const char* path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path, &info), 0);
    return info.st_ino;
}

/// Waits until somebody knocks.
bool hasCaller(const UniqueFd& listening) {
    pollfd waited{.fd = listening.get(), .events = POLLIN, .revents = 0};
    constexpr int callerTimeout = 30'000;  // milliseconds
    return ::poll(&waited, 1, callerTimeout) == 1;
}

/// The socket on which systemd waits for a service's reports.
UniqueFd reportsAt(const std::string& path) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = platform::addressOf(path);
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return fd;
}

/// Waits for a report.
std::string nextReport(const UniqueFd& reports) {
    std::string report(1000, 0);
    if (!hasCaller(reports)) {
        return "none";
    }
    report.resize(static_cast<std::size_t>(
        std::max<ssize_t>(::recv(reports.get(), report.data(), report.size(), 0), 0)));
    return report;
}

/// The end of a helper that must not serve.
Finished endOf(Program& helper) {
    return helper.endsWithin(std::chrono::seconds(20)) ? helper.finish() : Finished();
}

/// The end of a helper that gets these variables, and `fd` as its descriptor 3.
Finished passed(int fd, const std::vector<std::string>& variables) {
    Surroundings surroundings;
    if (fd >= 0) {
        surroundings.descriptors = {{fd, 3}};
    }
    Program helper(activationCommand(helperProgram, variables), {}, surroundings);
    return endOf(helper);
}

/// The end of a helper to which nothing is passed.
Finished startedByHand() {
    Program helper({helperProgram});
    return endOf(helper);
}

Finished passedOne(int fd) {
    return passed(fd, {"LISTEN_PID=$$", "LISTEN_FDS=1"});
}

auto failedWith(const std::string& error) {
    return AllOf(Field(&Finished::status, 1), Field(&Finished::error, error));
}

class ServiceActivationTest : public testing::Test {
protected:
    ServiceLab lab;
};

TEST_F(ServiceActivationTest, ServesOnTheSocketThatIsPassed) {
    const UniqueFd listening = listenAt(servicePath);
    const ino_t inode = inodeOf(servicePath);

    const Service service({.program = helperProgram, .listeningSocket = listening.get()});
    ServiceClient client(lab.client);

    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
    EXPECT_EQ(inodeOf(servicePath), inode);
    EXPECT_THAT(namesIn("/run"), testing::Not(testing::Contains(testing::HasSubstr("socket."))));
}

TEST_F(ServiceActivationTest, IsStartedAgainByTheNextRequestWithEverythingInForce) {
    TARNVALE_NEEDS(interfaces);
    put(storePath, store());
    const UniqueFd listening = listenAt(servicePath);
    for (int start = 0; start < 3; ++start) {
        ServiceClient client(lab.client);
        client.begin("HelperVersion");
        ASSERT_TRUE(hasCaller(listening));
        flushRules();

        Service service({.program = helperProgram, .listeningSocket = listening.get()});

        EXPECT_THAT(client.reply(), ElementsAre(helperVersion()));
        EXPECT_THAT(
            client.call("FirewallReport"),
            ElementsAre(testing::HasSubstr("block drop out quick"), "nil"));
        service.kill();
        EXPECT_THAT(client.call("HelperVersion"), ElementsAre("closed"));
    }
    const std::vector<std::string> once = {
        "Applied firewall. Enforcing 1 network for all users: Lab",
        "Boot re-apply: Enforcing 1 network for all users: Lab",
        listeningMessage()};
    std::vector<std::string> log;
    for (int start = 0; start < 3; ++start) {
        log.insert(log.end(), once.begin(), once.end());
    }
    EXPECT_THAT(logMessages(), testing::ElementsAreArray(log));
}

TEST_F(ServiceActivationTest, LoadsWhatAWaitingClientNeedsBesideTheReapply) {
    put(storePath, store());
    ScriptedPfctl pfctl;
    pfctl.answer(ScriptedPfctl::load, "while [ ! -e /run/go ]; do sleep 0.01; done");
    const UniqueFd listening = listenAt(servicePath);
    ServiceClient client(lab.client);
    client.begin("HelperVersion");
    ASSERT_TRUE(hasCaller(listening));
    Surroundings surroundings;
    surroundings.descriptors = {{listening.get(), 3}};

    Program helper(
        activationCommand(helperProgram, {"LISTEN_PID=$$", "LISTEN_FDS=1"}), {}, surroundings);
    const std::string maps = "/proc/" + std::to_string(helper.pid()) + "/maps";
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (contentOf(maps).find("libcrypto") == std::string::npos) {
        ASSERT_TRUE(helper.running() && std::chrono::steady_clock::now() < end);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    EXPECT_THAT(logMessages(), testing::Not(testing::Contains(listeningMessage())));
    put("/run/go", "");
    EXPECT_THAT(client.reply(), ElementsAre(helperVersion()));
}

TEST_F(ServiceActivationTest, TellsSystemdOnceThatTheRulesAreInForceAndItListens) {
    put(storePath, store());
    ScriptedPfctl pfctl;
    pfctl.answer(
        ScriptedPfctl::load, "touch /run/loading; while [ ! -e /run/go ]; do sleep 0.01; done");
    pfctl.answer("-E", "sleep 0.1; touch /run/enforced");
    const UniqueFd reports = reportsAt("/run/reports");
    Program helper(
        {helperProgram}, {}, {.environment = {"NOTIFY_SOCKET=/run/reports"}, .descriptors = {}});
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!exists("/run/loading")) {
        ASSERT_TRUE(helper.running() && std::chrono::steady_clock::now() < end);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    char early = 0;
    EXPECT_EQ(::recv(reports.get(), &early, sizeof early, MSG_DONTWAIT), -1);
    put("/run/go", "");
    EXPECT_EQ(nextReport(reports), "READY=1");

    EXPECT_TRUE(exists("/run/enforced"));
    EXPECT_THAT(logMessages(), testing::Contains(listeningMessage()));
    ServiceClient client(lab.client);
    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
    EXPECT_EQ(::recv(reports.get(), &early, sizeof early, MSG_DONTWAIT), -1);
}

TEST_F(ServiceActivationTest, ServesAlthoughNobodyTakesItsReport) {
    Program helper(
        {helperProgram}, {}, {.environment = {"NOTIFY_SOCKET=/run/nobody"}, .descriptors = {}});
    awaitMessage(listeningMessage(), &helper);

    ServiceClient client(lab.client);

    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
}

TEST_F(ServiceActivationTest, PassesNothingOfItOn) {
    ScriptedPfctl pfctl;
    pfctl.answer("-E", "env >/run/environment; ls /proc/self/fd >/run/descriptors");
    put(storePath, store());
    const UniqueFd listening = listenAt(servicePath);
    Surroundings surroundings;
    surroundings.descriptors = {{listening.get(), 3}};
    Program helper(
        activationCommand(
            helperProgram, {"LISTEN_PID=$$", "LISTEN_FDS=1", "LISTEN_FDNAMES=service", "OTHER=x"}),
        {},
        surroundings);
    awaitMessage(listeningMessage(), &helper);

    EXPECT_THAT(contentOf("/run/environment"), testing::HasSubstr("OTHER=x\n"));
    EXPECT_THAT(contentOf("/run/environment"), testing::Not(testing::HasSubstr("LISTEN_")));
    // The fourth is ls(1)'s own.
    EXPECT_EQ(contentOf("/run/descriptors"), "0\n1\n2\n3\n");
}

TEST_F(ServiceActivationTest, MakesItsOwnWhereNothingIsPassedToIt) {
    const UniqueFd other = listenAt("/run/other");
    const std::vector<std::vector<std::string>> environments = {
        {"LISTEN_PID=1", "LISTEN_FDS=1"},
        {"LISTEN_PID=", "LISTEN_FDS=1"},
        {"LISTEN_PID=$$x", "LISTEN_FDS=1"},
        {"LISTEN_FDS=1"},
        {"LISTEN_PID=$$"},
        {"LISTEN_PID=$$", "LISTEN_FDS=0"},
        {"LISTEN_PID=$$", "LISTEN_FDS=-1"},
        {"LISTEN_PID=$$", "LISTEN_FDS=one"}};
    for (const auto& environment : environments) {
        SCOPED_TRACE(testing::PrintToString(environment));
        fs::remove(logPath);
        Surroundings surroundings;
        surroundings.descriptors = {{other.get(), 3}};
        Program helper(activationCommand(helperProgram, environment), {}, surroundings);
        awaitMessage(listeningMessage(), &helper);

        ServiceClient client(lab.client);

        EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
        EXPECT_EQ(modeOf(servicePath), 0666U);
    }
}

TEST_F(ServiceActivationTest, TakesExactlyOneSocket) {
    const UniqueFd listening = listenAt(servicePath);

    EXPECT_THAT(
        passed(listening.get(), {"LISTEN_PID=$$", "LISTEN_FDS=2"}),
        failedWith("TarnvaleAdminHelper: One listening socket was expected, 2 were passed.\n"));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(ServiceActivationTest, TakesNothingButAListeningUnixStreamSocket) {
    const UniqueFd file(::open("/etc/passwd", O_RDONLY | O_CLOEXEC));
    const UniqueFd datagrams(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const UniqueFd packets(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const UniqueFd idle(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const UniqueFd internet(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::listen(internet.get(), 1), 0);
    const UniqueFd listening = listenAt(servicePath);
    const UniqueFd connected = connectToService();

    for (const auto* fd : {&file, &datagrams, &packets, &idle, &internet, &connected}) {
        EXPECT_THAT(passedOne(fd->get()), failedWith(notListening));
    }
    EXPECT_THAT(passedOne(-1), failedWith(notListening));
}

TEST_F(ServiceActivationTest, MakesASocketForEverybodyWhateverTheUmask) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        ::umask(mask);
        const Service service;
        EXPECT_EQ(modeOf(servicePath), 0666U) << mask;
    }
}

TEST_F(ServiceActivationTest, ReplacesASocketThatNobodyListensOn) {
    { const Service first; }
    ASSERT_TRUE(exists(servicePath));
    ASSERT_FALSE(connectToService());

    const Service second;
    ServiceClient client(lab.client);

    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
    EXPECT_THAT(namesIn("/run"), testing::Not(testing::Contains(testing::HasSubstr("socket."))));
}

TEST_F(ServiceActivationTest, LeavesAnotherHelpersSocketAlone) {
    const Service service;
    const ino_t inode = inodeOf(servicePath);

    EXPECT_THAT(
        startedByHand(),
        failedWith("TarnvaleAdminHelper: Another helper listens on "
                   "/run/com.brackwen.tarnvale.adminhelper.socket.\n"));

    EXPECT_EQ(inodeOf(servicePath), inode);
    ServiceClient client(lab.client);
    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
}

TEST_F(ServiceActivationTest, LeavesWhatIsNoSocketAlone) {
    const std::string inTheWay =
        "TarnvaleAdminHelper: /run/com.brackwen.tarnvale.adminhelper."
        "socket is in the way: it isn't a socket.\n";

    put(servicePath, "somebody's");
    EXPECT_THAT(startedByHand(), failedWith(inTheWay));
    EXPECT_EQ(contentOf(servicePath), "somebody's");

    fs::remove(servicePath);
    fs::create_directory(servicePath);
    EXPECT_THAT(startedByHand(), failedWith(inTheWay));
    EXPECT_TRUE(fs::is_directory(servicePath));

    fs::remove(servicePath);
    listenAt("/run/other");
    fs::create_symlink("/run/other", servicePath);
    EXPECT_THAT(startedByHand(), failedWith(inTheWay));
    EXPECT_TRUE(fs::is_symlink(servicePath));
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(ServiceActivationTest, SaysThatThereIsNoPlaceForASocket) {
    TARNVALE_NEEDS(mounts);
    ASSERT_EQ(::mount(nullptr, "/run", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);

    EXPECT_THAT(
        startedByHand(),
        failedWith("TarnvaleAdminHelper: Could not bind "
                   "/run/com.brackwen.tarnvale.adminhelper.socket: Read-only file system.\n"));
}

}  // namespace
}  // namespace tarnvale::test
