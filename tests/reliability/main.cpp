// SPDX-License-Identifier: MIT
//
// sweep memory [PATH [SHORTAGE [FIRST [LAST [STEP]]]]]: lets each allocation of the helper fail in
// turn, on one of the paths or on all, in one of the ways or in all, from point to point. Prints
// how many points there were and each violation; status 1 if there was one. It works in a private
// root.

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "support/Decimal.h"
#include "tests/reliability/Paths.h"
#include "tests/reliability/Sweep.h"
#include "tests/support/PrivateRoot.h"

namespace {

namespace test = tarnvale::test;
using test::MemorySweep;
using test::Path;
using test::Points;
using test::Shortage;
using Clock = std::chrono::steady_clock;

constexpr const char* all = "all";

/// The words of the command line that say where to sweep.
struct Request {
    std::string path = all;
    std::string shortage = all;
    Points points{};
};

std::uint64_t numberIn(std::string_view word) {
    const auto number = tarnvale::support::parseNumber<std::uint64_t>(
        word, std::numeric_limits<std::uint64_t>::max());
    if (!number || *number == 0) {
        throw std::invalid_argument("not a number of a point: " + std::string(word));
    }
    return *number;
}

Request requestIn(const std::vector<std::string>& words) {
    Request request;
    for (std::size_t place = 0; place < words.size(); ++place) {
        const auto& word = words[place];
        switch (place) {
            case 0:
                request.path = word;
                break;
            case 1:
                request.shortage = word;
                break;
            case 2:
                request.points.first = numberIn(word);
                break;
            case 3:
                request.points.last = numberIn(word);
                break;
            default:
                request.points.step = numberIn(word);
        }
    }
    return request;
}

/// Whether nothing was violated.
bool sweep(MemorySweep& sweeper, const Path& path, const Shortage& shortage, const Points& points) {
    const auto begin = Clock::now();
    const auto outcome = sweeper.run(path, shortage, points);
    const std::chrono::duration<double> time = Clock::now() - begin;
    for (const auto& violation : outcome.violations) {
        std::printf("%s\n", violation.c_str());
    }
    std::printf(
        "%s %s: %llu points, %zu violations, %llu restarts, %.0f s\n",
        path.name,
        shortage.name,
        static_cast<unsigned long long>(outcome.points),
        outcome.violations.size(),
        static_cast<unsigned long long>(outcome.restarts),
        time.count());
    std::fflush(stdout);
    return outcome.violations.empty();
}

int sweepAll(const Request& request) {
    ::umask(S_IWGRP | S_IWOTH);  // clients of several users read what it lays out
    MemorySweep sweeper;
    bool isClean = true;
    bool isAny = false;
    for (const auto& shortage : test::allShortages()) {
        for (const auto& path : test::allPaths()) {
            if ((request.path != all && request.path != path.name) ||
                (request.shortage != all && request.shortage != shortage.name)) {
                continue;
            }
            isAny = true;
            if (path.needsVLANs && !test::hasVLANs()) {
                std::printf("%s %s: the kernel has no VLANs here\n", path.name, shortage.name);
                continue;
            }
            isClean = sweep(sweeper, path, shortage, request.points) && isClean;
        }
    }
    if (!isAny) {
        throw std::invalid_argument("no such path or shortage");
    }
    return isClean ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.empty() || words.size() > 6 || words[0] != "memory") {
        std::fputs("usage: sweep memory [PATH [SHORTAGE [FIRST [LAST [STEP]]]]]\n", stderr);
        return 2;
    }
    try {
        if (!test::isInPrivateRoot()) {
            const std::string program = std::filesystem::read_symlink("/proc/self/exe");
            if (const auto refusal = test::enterPrivateRoot()) {
                throw std::runtime_error(*refusal);
            }
            // Started again, it is a program of that root through and through.
            ::execv(program.c_str(), argv);
            throw std::system_error(errno, std::generic_category(), program);
        }
        return sweepAll(requestIn({words.begin() + 1, words.end()}));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sweep: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
