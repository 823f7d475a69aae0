// SPDX-License-Identifier: MIT
//
// What the service costs: the shipped helper with a signed client, beside a bare D-Bus server that
// does nothing else (service/EchoService.cpp), in turns; its start, its memory, its wake-ups. The
// peer of its start is systemd-hostnamed. It writes the true paths, so it enters a private root
// first; it needs root. An argument chooses one of the benches: rate, connect, admission,
// activation, version, memory or wake-ups.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/PolicyDocument.h"
#include "bench/Precedence.h"
#include "bench/Programs.h"
#include "bench/SignedPrograms.h"
#include "bench/StoredPolicies.h"
#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/UnixSockets.h"

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

constexpr const char* busDaemonPath = "/usr/bin/dbus-daemon";
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

double clockMicroseconds() {
    return std::chrono::duration<double, std::micro>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/// A server that is started with a listening socket, as systemd starts one.
class Server {
public:
    explicit Server(const std::vector<std::string>& words)
        : path_("/tmp/server-" + std::to_string(++count_)), socket_(test::listenAt(path_)) {
        start(words);
    }
    Server(const std::vector<std::string>& words, const std::function<void(const Server&)>& before)
        : path_("/tmp/server-" + std::to_string(++count_)), socket_(test::listenAt(path_)) {
        before(*this);
        start(words);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        ::unlink(path_.c_str());
    }

    const std::string& path() const { return path_; }
    pid_t pid() const { return pid_; }

    /// When it was about to become its program: microseconds of the steady clock.
    double startedAt() const { return startedAt_; }

private:
    void start(const std::vector<std::string>& words) {
        std::vector<char*> arguments;
        for (const std::string& word : words) {
            arguments.push_back(const_cast<char*>(word.c_str()));
        }
        arguments.push_back(nullptr);
        void* const shared = ::mmap(
            nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        require(shared != MAP_FAILED, "mmap");
        auto* const startedAt = new (shared) double(0);
        pid_ = ::fork();
        require(pid_ >= 0, "fork");
        if (pid_ == 0) {
            constexpr int passed = 3;
            if (::dup2(socket_.get(), passed) != passed || ::fcntl(passed, F_SETFD, 0) != 0 ||
                ::setenv("LISTEN_FDS", "1", 1) != 0 ||
                ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1) != 0) {
                ::_exit(EXIT_FAILURE);
            }
            *startedAt = clockMicroseconds();
            ::execv(arguments[0], arguments.data());
            ::_exit(EXIT_FAILURE);
        }
        awaitProgram();
        startedAt_ = *startedAt;
        ::munmap(shared, sizeof(double));
    }

    /// The time stands in memory that the child shares until it becomes another program.
    void awaitProgram() const {
        const std::string link = "/proc/" + std::to_string(pid_) + "/exe";
        while (fs::read_symlink(link) == fs::read_symlink("/proc/self/exe")) {
            std::this_thread::sleep_for(50us);
        }
    }

    static inline int count_ = 0;
    std::string path_;
    support::UniqueFd socket_;
    pid_t pid_ = -1;
    double startedAt_ = 0;
};

/// A client program at work, which answers in lines.
class Call {
public:
    Call(const char* program, const std::string& socket, std::vector<std::string> words) {
        words.insert(words.begin(), {program, socket});
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        int input[2]{};
        int output[2]{};
        require(::pipe2(input, O_CLOEXEC) == 0 && ::pipe2(output, O_CLOEXEC) == 0, "pipe2");
        const support::UniqueFd itsInput(input[0]);
        const support::UniqueFd itsOutput(output[1]);
        input_.reset(input[1]);
        output_ = ::fdopen(output[0], "r");
        posix_spawn_file_actions_t actions{};
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, itsInput.get(), STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, itsOutput.get(), STDOUT_FILENO);
        errno = ::posix_spawn(&pid_, program, &actions, nullptr, arguments.data(), environ);
        ::posix_spawn_file_actions_destroy(&actions);
        require(errno == 0, program);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call() {
        input_.reset();
        ::waitpid(pid_, nullptr, 0);
        std::fclose(output_);
    }

    std::string line() {
        char text[64]{};
        if (std::fgets(text, sizeof text, output_) == nullptr) {
            throw std::runtime_error("the client was turned away");
        }
        return text;
    }

    double number() { return std::stod(line()); }

private:
    support::UniqueFd input_;
    std::FILE* output_ = nullptr;
    pid_t pid_ = -1;
};

double figure(const char* program, const Server& server, std::vector<std::string> words) {
    return Call(program, server.path(), std::move(words)).number();
}

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

/// Puts the program of this name in the place of the packet filter's.
void installPfctl(const char* name) {
    fs::remove("/sbin/pfctl");
    fs::copy_file(std::string(TARNVALE_BIN_DIR) + name, "/sbin/pfctl");
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

/// A message bus of its own, which starts systemd-hostnamed for whoever calls it.
class Bus {
public:
    Bus() {
        const std::string socket = "/tmp/bus";
        address_ = "unix:path=" + socket;
        fs::create_directory("/tmp/bus-services");
        std::ofstream("/tmp/bus-services/hostname1.service")
            << "[D-BUS Service]\nName=org.freedesktop.hostname1\nExec=" << TARNVALE_BIN_DIR
            << "/stamp_start " << stampPath << " " << hostnamedPath << "\n";
        std::ofstream("/tmp/bus.conf")
            << "<busconfig><type>session</type><listen>" << address_ << "</listen>"
            << "<servicedir>/tmp/bus-services</servicedir><policy context=\"default\">"
            << "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
            << "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
        pid_ = ::fork();
        require(pid_ >= 0, "fork");
        if (pid_ == 0) {
            ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);  // hostnamed inherits it
            // It reports each start.
            if (std::freopen("/dev/null", "w", stderr) == nullptr) {
                ::_exit(EXIT_FAILURE);
            }
            ::execl(
                busDaemonPath, busDaemonPath, "--nofork", "--config-file=/tmp/bus.conf", nullptr);
            ::_exit(EXIT_FAILURE);
        }
        while (!test::connectTo(socket)) {
            require(::waitpid(pid_, nullptr, WNOHANG) == 0, busDaemonPath);
            std::this_thread::sleep_for(1ms);
        }
    }
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    /// From hostnamed's start to its first reply, to a client that waits for it.
    double activation() const {
        const double repliedAt = Call(
                                     TARNVALE_BIN_DIR "/bus_caller",
                                     address_,
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
    std::string address_;
    pid_t pid_ = -1;
};

/// The same floor for the peer, which enforces nothing.
void benchPeersActivation() {
    constexpr const char* name = "systemd-hostnamed, bus activated";
    if (!fs::exists(busDaemonPath) || !fs::exists(hostnamedPath)) {
        std::printf("%s: not installed\n", name);
        return;
    }
    const Bus bus;
    printRow(
        name,
        compare(
            60, [&] { return bus.activation(); }, [] { return activation(echoLoop, caller); }));
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
    installPfctl("/pfctl");
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

/// The numbers behind the key in a file of /proc, added up.
double sumOf(std::string_view key, const fs::path& path) {
    std::ifstream file(path);
    std::string word;
    double sum = 0;
    while (file >> word) {
        double value = 0;
        if (word == key && file >> value) {
            sum += value;
        }
    }
    return sum;
}

/// The memory that is the process's alone, without unchanged pages of files: those are everybody's,
/// even if nobody else has them open at the moment.
double privateKibibytes(const Server& server) {
    return sumOf("Private_Dirty:", "/proc/" + std::to_string(server.pid()) + "/smaps_rollup");
}

void benchMemory() {
    constexpr int connections = 60;
    // The packet filter's program is another process; here it does nothing.
    installPfctl("/empty_program");
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
    double sum = 0;
    const std::string tasks = "/proc/" + std::to_string(server.pid()) + "/task";
    for (const auto& task : fs::directory_iterator(tasks)) {
        sum += sumOf("voluntary_ctxt_switches:", task.path() / "status");
    }
    return sum;
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
