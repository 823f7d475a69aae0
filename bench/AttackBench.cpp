// SPDX-License-Identifier: MIT
//
// How long a good client waits while four users do the helper all the harm that they can, each with
// 64 connections: from connecting to the reply, on two cores that all of them share. One client is
// known to the helper, the other is a program that it has never seen. It writes the true paths, so
// it enters a private root first; it needs root. An argument, a row's name, chooses one attack.

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/Programs.h"
#include "bench/StoredPolicies.h"
#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/HostileSignatures.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/SigningLab.h"
#include "tests/support/UnixSockets.h"

namespace tarnvale::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using support::UniqueFd;

constexpr const char* activatePath = TARNVALE_BIN_DIR "/activate";
constexpr const char* helperPath = TARNVALE_BIN_DIR "/TarnvaleAdminHelper";
constexpr const char* pfctlPath = TARNVALE_BIN_DIR "/pfctl";
constexpr const char* attackerPath = TARNVALE_BIN_DIR "/attacker";
constexpr const char* socketPath = "/run/com.brackwen.tarnvale.adminhelper.socket";
constexpr const char* identifier = "com.brackwen.tarnvale";

constexpr int samples = 200;
constexpr uid_t firstAttacker = 2001;
constexpr uid_t attackers = 4;
constexpr uid_t client = 1500;

/// A program that runs until it is no longer wanted.
class Running {
public:
    explicit Running(const std::vector<std::string>& words) {
        UniqueFd input;
        UniqueFd output;
        std::tie(input, toProgram_) = makePipe();
        std::tie(fromProgram_, output) = makePipe();
        std::vector<char*> arguments;
        for (const auto& word : words) {
            arguments.push_back(const_cast<char*>(word.c_str()));
        }
        arguments.push_back(nullptr);
        pid_ = ::fork();
        require(pid_ >= 0, "fork");
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(input.get(), STDIN_FILENO);
            ::dup2(output.get(), STDOUT_FILENO);
            ::execv(arguments[0], arguments.data());
            ::_exit(EXIT_FAILURE);
        }
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    /// Has the program ask the helper; milliseconds, or nothing when it got no answer.
    std::optional<double> ask() const {
        require(::write(toProgram_.get(), "\n", 1) == 1, "write");
        std::string line;
        for (char next = 0; next != '\n'; line += next) {
            require(::read(fromProgram_.get(), &next, 1) == 1, "read");
        }
        return line == "failed\n" ? std::nullopt : std::optional(std::stod(line) / 1000);
    }

private:
    static std::pair<UniqueFd, UniqueFd> makePipe() {
        std::array<int, 2> ends{};
        require(::pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
        return {UniqueFd(ends[0]), UniqueFd(ends[1])};
    }

    UniqueFd toProgram_;
    UniqueFd fromProgram_;
    pid_t pid_ = -1;
};

/// What one kind of client has been through.
class Waits {
public:
    void add(const std::optional<double>& milliseconds) {
        if (milliseconds) {
            all_.push_back(*milliseconds);
        } else {
            ++failed_;
        }
    }

    std::string summary() {
        std::sort(all_.begin(), all_.end());
        const auto at = [this](double share) {
            return all_.empty() ? 0.0
                                : all_[static_cast<std::size_t>(
                                      share * static_cast<double>(all_.size() - 1))];
        };
        std::array<char, 100> text{};
        std::snprintf(
            text.data(), text.size(), "%8.1f %8.1f %8.1f %6d", at(0.5), at(0.99), at(1), failed_);
        return text.data();
    }

private:
    std::vector<double> all_;
    int failed_ = 0;
};

class AttackBench {
public:
    explicit AttackBench(std::string chosen) : chosen_(std::move(chosen)) {
        fs::create_directories("/etc/tarnvale");
        test::put("/etc/tarnvale/code-signing-roots.pem", chain_.root.certificatePem());
        fs::permissions("/etc/tarnvale/code-signing-roots.pem", fs::perms(0644));
        const std::string genuine = test::signatureOf(program_, identifier, chain_);
        write(known_, test::withTrailer(program_, genuine));
        for (int count = 0; count < samples; ++count) {
            // No two are the same file; the same signature is good for all of them.
            write(unknown(count), test::withTrailer(program_, genuine));
        }
        std::this_thread::sleep_for(4s);  // what has just been written is not remembered
    }

    void run() {
        const std::string genuine = test::signatureOf(program_, identifier, chain_);
        std::printf(
            "%-34s %26s %27s\n%-34s %8s %8s %8s %6s %8s %8s %8s %6s\n",
            "milliseconds",
            "a new program",
            "a known one",
            "",
            "median",
            "p99",
            "most",
            "failed",
            "median",
            "p99",
            "most",
            "failed");
        measure("nobody", "", [](uid_t) { return std::string(); });
        measure("unsigned programs", "hold", [this](uid_t user) {
            return hostileProgram(user, program_);
        });
        measure("keys on curves of their own", "hold", [&](uid_t user) {
            const std::vector<std::string> costly(
                14, test::unsignedCertificate(test::costlyKey(), test::ecdsaWithSha256()));
            return hostileProgram(
                user, test::withTrailer(program_, test::withFurtherCertificates(genuine, costly)));
        });
        measure("digests of borrowed signatures", "hold", [&](uid_t user) {
            std::string large = program_;
            large.resize(std::size_t{63} << 20U);
            return hostileProgram(user, test::withTrailer(large, genuine));
        });
        measure("connections that are only held", "hold", [&](uid_t user) {
            return hostileProgram(user, test::withTrailer(program_, genuine));
        });
        measure("connecting and closing", "churn", [&](uid_t user) {
            return hostileProgram(user, program_);
        });
        measure("messages that break off", "break-off", [&](uid_t user) {
            return hostileProgram(user, test::withTrailer(program_, genuine));
        });
        measure("shutdowns in a row", "shut-down", [&](uid_t user) {
            return hostileProgram(user, test::withTrailer(program_, genuine));
        });
        fs::remove("/sbin/pfctl");
        fs::copy_file(pfctlPath, "/sbin/pfctl");
        storePolicies(1000, 40);
        measure("reports of 9 MB", "report", [&](uid_t user) {
            return hostileProgram(user, test::withTrailer(program_, genuine));
        });
    }

private:
    static std::string unknown(int count) { return "/tmp/unknown-" + std::to_string(count); }

    static void write(const std::string& path, const std::string& bytes) {
        test::put(path, bytes);
        fs::permissions(path, fs::perms(0755));
    }

    static std::string hostileProgram(uid_t user, const std::string& bytes) {
        const std::string path = "/tmp/attacker-" + std::to_string(user);
        fs::remove(path);
        write(path, bytes);
        return path;
    }

    void measure(
        const std::string& name,
        const std::string& verb,
        const std::function<std::string(uid_t)>& programOf) {
        if (!chosen_.empty() && name != chosen_) {
            return;
        }
        fs::remove(socketPath);
        // It is started again as often as it ends, as systemd does.
        const Running helper({activatePath, helperPath});
        while (!test::connectTo(socketPath)) {
            std::this_thread::sleep_for(10ms);
        }
        const std::string clientID = std::to_string(client);
        const Running knownClient({known_, clientID, "ask"});
        for (int count = 0; count < 5; ++count) {
            knownClient.ask();
        }

        std::vector<std::string> programs;
        std::vector<std::unique_ptr<Running>> hostile;
        for (uid_t user = firstAttacker; !verb.empty() && user < firstAttacker + attackers;
             ++user) {
            programs.push_back(programOf(user));
            hostile.push_back(std::make_unique<Running>(
                std::vector<std::string>{programs.back(), std::to_string(user), verb}));
        }
        std::this_thread::sleep_for(1s);

        Waits waitsOfNew;
        Waits waitsOfKnown;
        for (int count = 0; count < samples; ++count) {
            if (verb == "hold" || verb == "churn") {
                // A file that changes all the time is never remembered.
                for (const auto& path : programs) {
                    ::chmod(path.c_str(), 0755);
                }
            }
            const Running newClient({unknown(count), clientID, "ask"});
            waitsOfNew.add(newClient.ask());
            waitsOfKnown.add(knownClient.ask());
        }
        std::printf(
            "%-34s %s %s\n",
            name.c_str(),
            waitsOfNew.summary().c_str(),
            waitsOfKnown.summary().c_str());
        std::fflush(stdout);
    }

    const std::string chosen_;  ///< the one attack to be measured; all of them if empty
    const test::Chain chain_ = test::Chain::development();
    const std::string program_ = test::contentOf(attackerPath);
    const std::string known_ = "/tmp/known";
};

void run(const std::string& chosen) {
    cpu_set_t two;
    CPU_ZERO(&two);
    CPU_SET(0, &two);
    CPU_SET(1, &two);
    require(::sched_setaffinity(0, sizeof two, &two) == 0, "sched_setaffinity");
    AttackBench(chosen).run();
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
