// SPDX-License-Identifier: MIT

#include "tests/reliability/SweepCommand.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string_view>

#include "support/Decimal.h"

namespace tarnvale::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* all = "all";
constexpr std::size_t maxWords = 5;

struct Request {
    std::string path = all;
    std::string way = all;
    Points points{};
};

std::uint64_t numberIn(std::string_view word) {
    const auto number =
        support::parseNumber<std::uint64_t>(word, std::numeric_limits<std::uint64_t>::max());
    if (!number || *number == 0) {
        throw std::invalid_argument("not a number of a point: " + std::string(word));
    }
    return *number;
}

Request requestIn(const std::vector<std::string>& words) {
    if (words.size() > maxWords) {
        throw std::invalid_argument("too many words");
    }
    Request request;
    for (std::size_t place = 0; place < words.size(); ++place) {
        const auto& word = words[place];
        switch (place) {
            case 0:
                request.path = word;
                break;
            case 1:
                request.way = word;
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

void print(const Outcome& outcome, const std::string& where, std::chrono::duration<double> time) {
    for (const auto& violation : outcome.violations) {
        std::printf("%s\n", violation.c_str());
    }
    const auto neverMet =
        outcome.neverMet > 0 ? ", " + std::to_string(outcome.neverMet) + " never met" : "";
    if (outcome.points > 0) {
        std::printf(
            "%s: %llu points%s, %zu violations, %llu restarts, %.0f s\n",
            where.c_str(),
            static_cast<unsigned long long>(outcome.points),
            neverMet.c_str(),
            outcome.violations.size(),
            static_cast<unsigned long long>(outcome.restarts),
            time.count());
    } else if (outcome.neverMet > 0) {
        std::printf("%s: nothing was measured%s\n", where.c_str(), neverMet.c_str());
    } else {
        std::printf("%s: there is no such point\n", where.c_str());
    }
    std::fflush(stdout);
}

/// Nothing was violated. A path may have no point for a way, but it can't be that none is met.
bool isClean(const Outcome& outcome) {
    return outcome.violations.empty() && (outcome.points > 0 || outcome.neverMet == 0);
}

}  // namespace

int sweepPaths(
    const std::vector<std::string>& words,
    const std::vector<std::string>& ways,
    const SweepPath& sweep) {
    const auto request = requestIn(words);
    bool allClean = true;
    bool isAny = false;
    std::uint64_t points = 0;
    for (const auto& way : ways) {
        for (const auto& path : allPaths()) {
            if ((request.path != all && request.path != path.name) ||
                (request.way != all && request.way != way)) {
                continue;
            }
            isAny = true;
            const std::string where = std::string(path.name) + " " + way;
            if (path.needsVLANs && !hasVLANs()) {
                std::printf("%s: the kernel has no VLANs here\n", where.c_str());
                continue;
            }
            const auto begin = Clock::now();
            const auto outcome = sweep(path, way, request.points);
            print(outcome, where, Clock::now() - begin);
            allClean = allClean && isClean(outcome);
            points += outcome.points;
        }
    }
    if (!isAny) {
        throw std::invalid_argument("no such path, or no such way");
    }
    if (points == 0) {
        std::printf("nothing was measured\n");
    }
    return allClean && points > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tarnvale::test
