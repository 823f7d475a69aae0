// SPDX-License-Identifier: MIT
//
// The service's life: what it does before it takes requests, how it ends, and that a client's end
// changes nothing about a request that has begun.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Pattern.h"
#include "tests/support/PolicyText.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/ScriptedPfctl.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

constexpr const char* shutdownMessage =
    "Shutdown requested for upgrade; exiting so launchd re-execs the new binary.";
constexpr const char* idleMessage = "Idle; exiting. launchd will relaunch on the next request.";

constexpr const char* applied = "Applied firewall. Enforcing 1 network for all users: Lab";

double seconds(Clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

/// How many sockets the process has.
std::size_t socketsOf(pid_t pid) {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code closedMeanwhile;
        if (fs::read_symlink(entry, closedMeanwhile).string().starts_with("socket:")) {
            ++count;
        }
    }
    return count;
}

/// Runs the work in this many processes at once, each with its own sockets, log and store. The test
/// fails when any of them does.
void inPrivateMachines(int count, const std::function<void()>& work) {
    std::vector<pid_t> children;
    for (int index = 0; index < count; ++index) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            fs::create_directories(supportFolder);
            bool made = ::unshare(CLONE_NEWNS | CLONE_NEWNET) == 0;
            for (const char* folder : {"/run", "/var/log", supportFolder.c_str()}) {
                made = made && ::mount("private", folder, "tmpfs", 0, nullptr) == 0;
            }
            EXPECT_TRUE(made);
            try {
                if (made) {
                    work();
                }
            } catch (const std::exception& error) {
                ADD_FAILURE() << error.what();
            }
            std::fflush(nullptr);
            ::_exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
}

class ServiceLifeTest : public testing::Test {
protected:
    ServiceLab lab;
};

TEST_F(ServiceLifeTest, ReappliesWhatIsStoredBeforeItCanBeReached) {
    put(storePath, storeText({{.key = "501", .networks = {{64}}}}));
    ScriptedPfctl pfctl;
    pfctl.answer(
        "-E", "test -e /run/com.brackwen.tarnvale.adminhelper.socket || touch /run/unreachable");

    const Service service;

    EXPECT_TRUE(exists("/run/unreachable"));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            applied, "Boot re-apply: Enforcing 1 network for all users: Lab", listeningMessage()));
}

TEST_F(ServiceLifeTest, ServesAlthoughTheReapplyFails) {
    put(storePath, "damaged");

    const Service service;
    ServiceClient client(lab.client);

    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Persisted firewall policy could not be decoded; leaving pf alone.",
            listeningMessage()));
}

TEST_F(ServiceLifeTest, EndsAMomentAfterItsReplyWhenAnUpgradeAsks) {
    TARNVALE_NEEDS(mounts);
    ScriptedPfctl pfctl;
    pfctl.answer("-si", "sleep 60");
    constexpr int machines = 10;
    constexpr int rounds = 10;

    inPrivateMachines(machines, [&] {
        for (int round = 0; round < rounds; ++round) {
            fs::remove(logPath);
            Service service;
            // One request is under way, another client is silent.
            ServiceClient busy(lab.client);
            busy.begin("FirewallReport");
            ServiceClient silent(lab.client);
            ASSERT_TRUE(silent.connects());
            ServiceClient client(lab.client);
            ASSERT_TRUE(client.connects());

            const auto asked = Clock::now();
            EXPECT_THAT(client.call("ShutdownForUpgrade"), IsEmpty());
            const auto replied = Clock::now();
            EXPECT_TRUE(service.running());
            ASSERT_TRUE(service.program().endsWithin(50s));
            const auto ended = Clock::now();

            EXPECT_EQ(service.program().finish().status, 0);
            EXPECT_GE(seconds(ended - asked), 0.3);
            EXPECT_LE(seconds(ended - replied), 10) << "on a busy machine";
            EXPECT_THAT(busy.reply(), ElementsAre("closed"));
            EXPECT_THAT(silent.tell({"await-close"}), ElementsAre("closed"));
            EXPECT_THAT(logMessages(), ElementsAre(listeningMessage(), shutdownMessage));
        }
    });
}

TEST_F(ServiceLifeTest, LetsEveryUserAskForTheShutdown) {
    TARNVALE_NEEDS(usersProcesses);
    Service service;
    ServiceClient client(lab.client, secondUser);

    EXPECT_THAT(client.call("ShutdownForUpgrade"), IsEmpty());

    ASSERT_TRUE(service.program().endsWithin(50s));
    EXPECT_EQ(service.program().finish().status, 0);
}

TEST_F(ServiceLifeTest, EndsWhenNobodyHasUsedItForTwoMinutes) {
    if (std::getenv("TARNVALE_SLOW_TESTS") == nullptr) {
        GTEST_SKIP() << "takes five minutes; set TARNVALE_SLOW_TESTS to have it run";
    }
    Service service;
    auto client = std::make_unique<ServiceClient>(lab.client);
    ASSERT_TRUE(client->connects());
    EXPECT_FALSE(service.program().endsWithin(155s)) << "a silent client keeps it alive";
    EXPECT_THAT(client->call("HelperVersion"), ElementsAre(helperVersion()));

    client.reset();
    const auto left = Clock::now();
    ASSERT_TRUE(service.program().endsWithin(155s));

    EXPECT_GE(seconds(Clock::now() - left), 120);
    EXPECT_LE(seconds(Clock::now() - left), 151);
    EXPECT_EQ(service.program().finish().status, 0);
    EXPECT_THAT(logMessages(), ElementsAre(listeningMessage(), idleMessage));
}

/// An apply whose client is stopped or killed meanwhile.
class ServiceClientsEndTest : public ServiceLifeTest {
protected:
    /// What an apply leaves: pfctl's calls, the log, the store and the ruleset, without times.
    std::string traces() {
        const auto timeless = [](const std::string& text) {
            static const Pattern times(
                R"re(("appliedAt" : )[0-9.]+|\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)re");
            return times.replaceAll(text, "$1");
        };
        std::string all;
        for (const auto& call : pfctl.calls()) {
            all += call + "\n";
        }
        for (const auto& message : logMessages()) {
            all += message + "\n";
        }
        return all + timeless(contentOf(storePath)) + timeless(contentOf(rulesetPath));
    }

    void forgetTraces() {
        fs::remove_all(supportFolder);
        fs::remove(logPath);
        pfctl.forgetCalls();
    }

    /// Waits until the service is done with all clients that have connected to it and ended.
    void awaitNoConnections(const Service& service, std::size_t idleSockets) {
        // Connections are accepted in turn: when this one has been, all before it have.
        EXPECT_TRUE(ServiceClient(lab.client).connects());
        const auto deadline = Clock::now() + 60s;
        while (socketsOf(service.pid()) != idleSockets && Clock::now() < deadline) {
            std::this_thread::sleep_for(1ms);
        }
        EXPECT_EQ(socketsOf(service.pid()), idleSockets);
    }

    /// Waits until the apply that has begun is over: another one waits for its lock.
    void awaitEndOfApply() {
        ServiceClient other(lab.client);
        other.call("ApplyFirewall", "ay", {"nonsense"});
    }

    ScriptedPfctl pfctl;
};

TEST_F(ServiceClientsEndTest, ChangesNothingAboutAnApply) {
    const Service service;
    const auto applyAs = [&](ServiceClient& client) {
        put("/run/client", std::to_string(client.pid()));
        client.begin("ApplyFirewall", "ay", {policyText({{64}})});
    };
    std::string undisturbed;
    std::size_t callCount = 0;
    {
        forgetTraces();
        ServiceClient client(lab.client);
        applyAs(client);
        EXPECT_THAT(client.reply(), ElementsAre("Enforcing 1 network: Lab", "nil"));
        callCount = pfctl.calls().size();
        awaitEndOfApply();
        undisturbed = traces();
    }
    EXPECT_EQ(callCount, 5U);

    for (const char* const signal : {"KILL", "STOP"}) {
        for (std::size_t call = 1; call <= callCount; ++call) {
            SCOPED_TRACE(std::string(signal) + " at call " + std::to_string(call));
            forgetTraces();
            pfctl = ScriptedPfctl();
            pfctl.answer(
                "*",
                "[ $n -ne " + std::to_string(call) + " ] || kill -" + signal +
                    " $(cat /run/client)");
            ServiceClient client(lab.client);
            applyAs(client);
            awaitMessage(applied);
            awaitEndOfApply();

            EXPECT_EQ(traces(), undisturbed);
            if (signal == std::string("STOP")) {
                client.signal(SIGCONT);
                EXPECT_THAT(client.reply(), ElementsAre("Enforcing 1 network: Lab", "nil"));
            }
        }
    }
}

TEST_F(ServiceClientsEndTest, LeavesAnApplyWholeOrUndoneAtAnyInstant) {
    const Service service;
    const std::size_t idleSockets = socketsOf(service.pid());
    // Begins an apply and ends its client after `wait`. Whether the apply was carried out.
    const auto applyUntil = [&](const std::function<void(ServiceClient&)>& wait) {
        forgetTraces();
        std::string rejection;
        {
            ServiceClient client(lab.client);
            rejection = "Rejected XPC client pid=" + std::to_string(client.pid()) +
                        " uid=0: not Tarnvale or its service signed by K7PD2QM4TZ.";
            client.begin("ApplyFirewall", "ay", {policyText({{64}})});
            wait(client);
        }
        service.signal(SIGCONT);
        awaitNoConnections(service, idleSockets);

        const auto messages = logMessages();
        if (messages.empty() || messages.front() == rejection) {
            EXPECT_LE(messages.size(), 1U);
            EXPECT_THAT(pfctl.calls(), IsEmpty());
            EXPECT_FALSE(exists(storePath));
            return false;
        }
        EXPECT_THAT(messages, ElementsAre(applied));
        EXPECT_EQ(pfctl.calls().size(), 5U);
        EXPECT_TRUE(exists(storePath));
        return true;
    };

    auto duration = Clock::duration::max();
    for (int i = 0; i < 3; ++i) {
        const auto begun = Clock::now();
        EXPECT_TRUE(applyUntil([&](ServiceClient& client) {
            EXPECT_THAT(client.reply(), ElementsAre("Enforcing 1 network: Lab", "nil"));
            duration = std::min(duration, Clock::now() - begun);
        }));
    }

    constexpr int instants = 40;
    for (int instant = 0; instant < instants; ++instant) {
        applyUntil([&](ServiceClient& /*client*/) {
            std::this_thread::sleep_for(duration * instant / instants);
        });
    }

    // A service that stands still cannot have admitted the client before its end.
    service.signal(SIGSTOP);
    EXPECT_FALSE(applyUntil([](ServiceClient& /*client*/) {}));
}

}  // namespace
}  // namespace tarnvale::test
