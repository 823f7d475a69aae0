// SPDX-License-Identifier: MIT
//
// What the service costs: the shipped helper with a signed client, beside a bare D-Bus server that
// does nothing else (service/EchoService.cpp), in turns; its start, its memory, its wake-ups. The
// peer of its start is systemd-hostnamed. It writes the true paths, so it enters a private root
// first; it needs root. An argument chooses one of the benches: rate, connect, admission,
// activation, version, memory or wake-ups.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/MessageBus.h"
#include "bench/PolicyDocument.h"
#include "bench/Precedence.h"
#include "bench/Programs.h"
#include "bench/Server.h"
#include "bench/SignedPrograms.h"
#include "bench/StoredPolicies.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/ProcessUsage.h"

namespace tarnvale::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* helperPath = TARNVALE_BIN_DIR "/TarnvaleAdminHelper";
constexpr const char* echoPath = TARNVALE_BIN_DIR "/echo_service";
constexpr const char* callerPath = TARNVALE_BIN_DIR "/service_caller";

constexpr const char* caller = "/tmp/caller";            ///< as small as it is
constexpr const char* largeCaller = "/tmp/caller-1-MB";  ///< of 1 MB
constexpr const char* documentPath = "/tmp/document.json";

constexpr const char* hostnamedPath = "/usr/lib/systemd/systemd-hostnamed";
constexpr const char* stampPath = "/tmp/stamp";  ///< of hostnamed's last start

const std::vector<std::string> helper{helperPath};
const std::vector<std::string> echoLoop{echoPath, "loop"};
const std::vector<std::string> echoThreads{echoPath, "threads"};

constexpr std::size_t callerSize = 1'000'000;
constexpr std::size_t requestSize = std::size_t{16} << 20;

/// Everything that runs on one core runs on this one.
constexpr int theCore = 0;

/// Whatever starts while it lives has one core.
class OnOneCore {
public:
    OnOneCore() {
        require(::sched_getaffinity(0, sizeof before_, &before_) == 0, "sched_getaffinity");
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(theCore, &one);
        require(::sched_setaffinity(0, sizeof one, &one) == 0, "sched_setaffinity");
    }
    OnOneCore(const OnOneCore&) = delete;
    OnOneCore& operator=(const OnOneCore&) = delete;
    ~OnOneCore() { ::sched_setaffinity(0, sizeof before_, &before_); }

private:
    cpu_set_t before_{};
};

void makeClients() {
    for (const char* path : {caller, largeCaller}) {
        fs::copy_file(callerPath, path);
    }
    fs::resize_file(largeCaller, callerSize);
    signAsApplication({caller, largeCaller});
}

double callsASecond(const Server& server, std::size_t connections, std::size_t calls) {
    return 1e6 /
           figure(caller, server, {"rate", std::to_string(connections), std::to_string(calls)});
}

/// One connection shares one core with its server; many have all cores. The floor is the same for
/// both.
void benchRate(std::size_t connections, std::size_t calls) {
    const Precedence precedence;
    std::optional<OnOneCore> onOneCore(std::in_place);
    const Server echo(echoLoop);
    const auto echoOnOneCore = [&] {
        const OnOneCore alsoTheClient;
        return callsASecond(echo, 1, 5000);
    };
    if (connections > 1) {
        onOneCore.reset();
    }
    const Server service(helper);
    const Server threads(echoThreads);
    std::vector<double> ofThreads;
    const auto comparison = compare(
        15,
        [&] {
            ofThreads.push_back(callsASecond(threads, connections, calls));
            return callsASecond(service, connections, calls);
        },
        echoOnOneCore);
    const std::string name =
        std::to_string(connections) + (connections == 1 ? " connection" : " connections");
    printRow("calls a second, " + name, comparison, "/s");
    printRow(
        "the same by an echo with threads",
        {.measured = median(ofThreads), .floor = comparison.floor},
        "/s");
}

void benchConnect() {
    const Precedence precedence;
    const Server service(helper);
    const Server echo(echoThreads);
    const auto connect = [](const Server& server) {
        return figure(caller, server, {"connect", "300"});
    };
    printRow(
        "new connection to its first reply",
        compare(
            15, [&] { return connect(service); }, [&] { return connect(echo); }));
}

/// From the program's start to its first reply, to a client that waits for it.
double activation(const std::vector<std::string>& words, const char* program) {
    std::optional<Call> call;
    const Server server(words, [&](const Server& waiting) {
        call.emplace(program, waiting.path(), std::vector<std::string>{"first"});
        call->line();
    });
    return call->number() - server.startedAt();
}

/// systemd-hostnamed on a message bus, which starts it for whoever calls it.
class Hostnamed {
public:
    /// From its start to its first reply, to a client that waits for it.
    double activation() const {
        const double repliedAt = Call(
                                     TARNVALE_BIN_DIR "/bus_caller",
                                     bus_.address(),
                                     {"org.freedesktop.hostname1",
                                      "/org/freedesktop/hostname1",
                                      "org.freedesktop.hostname1",
                                      "Hostname"})
                                     .number();
        pid_t hostnamed = -1;
        double startedAt = 0;
        require(bool(std::ifstream(stampPath) >> hostnamed >> startedAt), stampPath);
        ::kill(hostnamed, SIGKILL);
        // The bus reaps it, or else this process, the first one of its namespace.
        while (::kill(hostnamed, 0) == 0 && ::waitpid(hostnamed, nullptr, WNOHANG) != hostnamed) {
            std::this_thread::sleep_for(1ms);
        }
        return repliedAt - startedAt;
    }

private:
    MessageBus bus_{
        {{.name = "org.freedesktop.hostname1",
          .command =
              std::string(TARNVALE_BIN_DIR "/stamp_start ") + stampPath + " " + hostnamedPath}}};
};

/// The same floor for the peer, which enforces nothing.
void benchPeersActivation() {
    constexpr const char* name = "systemd-hostnamed, bus activated";
    if (!fs::exists(MessageBus::daemonPath) || !fs::exists(hostnamedPath)) {
        std::printf("%s: not installed\n", name);
        return;
    }
    const Hostnamed hostnamed;
    printRow(
        name,
        compare(
            60,
            [&] { return hostnamed.activation(); },
            [] { return activation(echoLoop, caller); }));
}

/// With stored policies, what is in force is what is stored: the helper, which ends when nobody
/// needs it, finds it so each time but the first.
void benchActivation() {
    const Precedence precedence;
    const auto row = [](const char* name) {
        printRow(
            name,
            compare(
                60,
                [] { return activation(helper, caller); },
                [] { return activation(echoLoop, caller); }));
    };
    row("activated, exec to first reply");
    benchPeersActivation();
    installPfctl(TARNVALE_BIN_DIR "/pfctl");
    storePolicies(10, 20);
    runProgram({helperPath, "--reapply"});
    row("the same with 10 x 20 stored");
    fs::remove_all("/Library");
}

void awaitListening() {
    test::awaitLog([](const auto& messages) {
        return std::any_of(messages.begin(), messages.end(), [](const std::string& message) {
            return message.find(" listening on ") != std::string::npos;
        });
    });
}

/// A helper that listens and has met nobody.
class FreshHelper {
public:
    FreshHelper() : server_((fs::remove(test::logPath), helper)) { awaitListening(); }
    const Server& operator*() const { return server_; }

private:
    Server server_;
};

void benchAdmission() {
    const Precedence precedence;
    std::vector<double> inAFreshProcess;
    std::vector<double> later;
    for (int round = 0; round < 40; ++round) {
        const FreshHelper service;
        inAFreshProcess.push_back(figure(largeCaller, *service, {"connect", "1"}));
    }
    for (int round = 0; round < 40; ++round) {
        const FreshHelper service;
        figure(caller, *service, {"connect", "1"});
        later.push_back(figure(largeCaller, *service, {"connect", "1"}));
    }
    printRow("first admission, client of 1 MB", median(inAFreshProcess) / 1000, "ms");
    printRow("the same when another one came before", median(later) / 1000, "ms");
}

void benchVersion() {
    const Precedence precedence;
    printRow(
        "--version",
        compare(
            300,
            [] {
                return runProgram({helperPath, "--version"}).microseconds;
            },
            [] { return runProgram({TARNVALE_BIN_DIR "/print_line"}).microseconds; }));
}

/// The memory that is the process's alone, without unchanged pages of files: those are everybody's,
/// even if nobody else has them open at the moment.
double privateKibibytes(const Server& server) {
    return static_cast<double>(
        test::sumOf(test::processFile(server.pid(), "smaps_rollup"), "Private_Dirty:"));
}

void benchMemory() {
    constexpr int connections = 60;
    // The packet filter's program is another process; here it does nothing.
    installPfctl(TARNVALE_BIN_DIR "/empty_program");
    std::ofstream(documentPath, std::ios::binary) << [] {
        constexpr std::size_t networks = 1000;
        const auto sizeOfARule =
            (policyDocument(networks, 20).size() - policyDocument(networks, 10).size()) / 10;
        return policyDocument(networks, requestSize / sizeOfARule);
    }();

    ::sync();  // pages of a program that was built just now would count as changed
    const FreshHelper service;
    std::this_thread::sleep_for(100ms);
    const double idle = privateKibibytes(*service);
    printRow("private memory when idle", idle, "KiB");
    figure(caller, *service, {"connect", "1"});
    std::this_thread::sleep_for(100ms);
    const double idleAgain = privateKibibytes(*service);
    printRow("the same once a client has come and gone", idleAgain, "KiB");
    {
        Call holding(caller, (*service).path(), {"hold", std::to_string(connections)});
        holding.line();
        printRow(
            "memory for an open connection",
            (privateKibibytes(*service) - idleAgain) / connections,
            "KiB");
    }
    std::this_thread::sleep_for(500ms);
    Call(caller, (*service).path(), {"apply", documentPath}).line();
    std::this_thread::sleep_for(500ms);
    printRow(
        "private memory after one request of 16 MB",
        {.measured = privateKibibytes(*service), .floor = idleAgain},
        "KiB");
    fs::remove_all("/Library");
}

/// How often its threads have been put on a core.
double switches(const Server& server) {
    std::int64_t sum = 0;
    for (const auto& task : fs::directory_iterator(test::processFile(server.pid(), "task"))) {
        sum += test::sumOf(task.path() / "status", "voluntary_ctxt_switches:");
    }
    return static_cast<double>(sum);
}

void benchWakeUps() {
    const FreshHelper service;
    figure(caller, *service, {"connect", "1"});
    std::this_thread::sleep_for(1s);
    const double before = switches(*service);
    std::this_thread::sleep_for(60s);
    printRow("wake-ups a minute when idle", switches(*service) - before, "");
}

void run(const std::string& chosen) {
    const std::vector<std::pair<std::string, std::function<void()>>> benches{
        {"rate",
         [] {
             benchRate(1, 5000);
             benchRate(64, 100);
         }},
        {"connect", benchConnect},
        {"admission", benchAdmission},
        {"activation", benchActivation},
        {"version", benchVersion},
        {"memory", benchMemory},
        {"wake-ups", benchWakeUps}};
    makeClients();
    std::printf("%-44s %15s %15s %9s\n", "", "service", "floor", "ratio");
    for (const auto& [name, bench] : benches) {
        if (chosen.empty() || name == chosen) {
            bench();
        }
    }
}

}  // namespace
}  // namespace tarnvale::bench

int main(int argc, char** argv) {
    if (const auto refusal = tarnvale::test::enterPrivateRoot()) {
        std::fprintf(stderr, "%s\n", refusal->c_str());
        return 77;
    }
    try {
        tarnvale::bench::run(argc > 1 ? argv[1] : "");
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
