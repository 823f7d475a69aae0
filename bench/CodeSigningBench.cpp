// SPDX-License-Identifier: MIT
//
// What admitting a client of 1 MB costs: the whole check, with OpenSSL loaded and in a process that
// has yet to load it; the digest, which is a part of it; and what is left once the client has been
// verified.

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/SignedPrograms.h"
#include "core/service/ClientAdmission.h"
#include "platform/CodeSigning.h"
#include "platform/linux/PeerProcess.h"
#include "platform/linux/codesigning/SignedData.h"
#include "support/UniqueFd.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/SocketPeer.h"

namespace tarnvale {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* clientPath = "/tmp/client";
constexpr std::size_t clientSize = 1'000'000;

/// A running client with a valid signature, and the root that vouches for it.
class Client {
public:
    Client() {
        std::ifstream original("/bin/sleep", std::ios::binary);
        std::string program{std::istreambuf_iterator<char>(original), {}};
        program.resize(clientSize);
        std::ofstream(clientPath, std::ios::binary) << program;
        std::filesystem::permissions(clientPath, std::filesystem::perms(0755));
        bench::signAsApplication({clientPath});
        process_.emplace(std::vector<std::string>{clientPath, "100000"});
    }

    int socket() const { return process_->socket(); }

private:
    std::optional<test::SocketPeer> process_;
};

std::optional<Client> client;

/// What the service does for a connection before it reads the first message.
void admit(platform::CodeSigning& signing, ClientAdmission& admission) {
    const auto process = platform::PeerProcess::ofSocket(client->socket());
    if (!process || !admission.isAllowedClient(process->peer()) ||
        !signing.guest(process->peer())->isValid(admission.clientRequirement())) {
        throw std::runtime_error("the client is not admitted");
    }
}

void digestOfTheClient(benchmark::State& state) {
    const support::UniqueFd file(::open(clientPath, O_RDONLY | O_CLOEXEC));
    for (auto _ : state) {
        benchmark::DoNotOptimize(platform::sha256(file.get(), clientSize));
    }
}

void firstAdmission(benchmark::State& state) {
    for (auto _ : state) {
        const auto signing = platform::makeCodeSigning();
        ClientAdmission admission(*signing);
        admit(*signing, admission);
    }
}

/// The first admission in a process, which includes loading OpenSSL.
void firstAdmissionOfAProcess(benchmark::State& state) {
    for (auto _ : state) {
        std::array<int, 2> result{};
        if (::pipe2(result.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2");
        }
        const support::UniqueFd reading(result[0]);
        const support::UniqueFd writing(result[1]);
        const pid_t child = ::fork();
        if (child == 0) {
            const auto start = Clock::now();
            const auto signing = platform::makeCodeSigning();
            ClientAdmission admission(*signing);
            admit(*signing, admission);
            const std::chrono::duration<double> taken = Clock::now() - start;
            const double seconds = taken.count();
            ::_exit(::write(writing.get(), &seconds, sizeof(seconds)) == sizeof(seconds) ? 0 : 1);
        }
        int status = 0;
        double seconds = 0;
        if (::waitpid(child, &status, 0) != child || status != 0 ||
            ::read(reading.get(), &seconds, sizeof(seconds)) != sizeof(seconds)) {
            throw std::runtime_error("the child failed");
        }
        state.SetIterationTime(seconds);
    }
}

void admissionOfAKnownClient(benchmark::State& state) {
    const auto signing = platform::makeCodeSigning();
    ClientAdmission admission(*signing);
    admit(*signing, admission);
    for (auto _ : state) {
        admit(*signing, admission);
    }
}

void checkOfAMessage(benchmark::State& state) {
    const auto signing = platform::makeCodeSigning();
    ClientAdmission admission(*signing);
    admit(*signing, admission);
    const std::string& requirement = admission.clientRequirement();
    const auto process = platform::PeerProcess::ofSocket(client->socket());
    for (auto _ : state) {
        benchmark::DoNotOptimize(signing->guest(process->peer())->isValid(requirement));
    }
}

// This one comes first: the others load OpenSSL into this process.
BENCHMARK(firstAdmissionOfAProcess)->Unit(benchmark::kMicrosecond)->UseManualTime();
BENCHMARK(firstAdmission)->Unit(benchmark::kMicrosecond);
BENCHMARK(digestOfTheClient)->Unit(benchmark::kMicrosecond);
BENCHMARK(admissionOfAKnownClient)->Unit(benchmark::kMicrosecond);
BENCHMARK(checkOfAMessage)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tarnvale

int main(int argc, char** argv) {
    if (const auto refusal = tarnvale::test::enterPrivateRoot()) {
        std::cerr << *refusal << '\n';
        return 77;
    }
    tarnvale::client.emplace();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    tarnvale::client.reset();
}
