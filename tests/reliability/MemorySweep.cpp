// SPDX-License-Identifier: MIT

#include "tests/reliability/MemorySweep.h"

#include <algorithm>
#include <limits>
#include <thread>

#include "tests/reliability/Kinds.h"
#include "tests/reliability/SweepCommand.h"

namespace tarnvale::test {
namespace {

int sweepShortages(const std::vector<std::string>& words) {
    std::vector<std::string> ways;
    for (const auto& shortage : allShortages()) {
        ways.emplace_back(shortage.name);
    }
    MemorySweep sweep;
    return sweepPaths(
        words, ways, [&](const Path& path, const std::string& way, const Points& points) {
            return sweep.run(
                path, *std::ranges::find(allShortages(), way, &Shortage::name), points);
        });
}

}  // namespace

const std::vector<Shortage>& allShortages() {
    static const std::vector<Shortage> shortages = {
        {.name = "once", .count = 1},
        {.name = "three", .count = 3},
        {.name = "five", .count = 5},
        {.name = "moment",
         .count = std::numeric_limits<std::uint64_t>::max(),
         .within = std::chrono::milliseconds(300)},
        {.name = "lasting",
         .count = std::numeric_limits<std::uint64_t>::max(),
         .within = std::chrono::seconds(3),
         .outlastsRequest = true}};
    return shortages;
}

Outcome MemorySweep::run(const Path& path, const Shortage& shortage, const Points& points) {
    begin(path);
    const auto first = std::max(points.first, path.firstPoint);
    const auto last = std::min(points.last, allocationsOf(path, shortage));
    for (auto number = first; number <= last; number += points.step) {
        setPoint(std::string(path.name) + " " + shortage.name + " " + std::to_string(number));
        meet([&] { return disturb(path, shortage, number); });
    }
    return takeOutcome();
}

std::unique_ptr<Program> MemorySweep::startHelper(const std::vector<std::string>& commandLine) {
    return std::make_unique<Program>(
        commandLine, "", Surroundings{.environment = faults_.environment(), .descriptors = {}});
}

/// The most that the path has made, with all that the shortage concerns, when nothing failed: what
/// happens beside the request, such as the end of an earlier connection, is in one run and not in
/// another.
std::uint64_t MemorySweep::allocationsOf(const Path& path, const Shortage& shortage) {
    constexpr int runs = 3;
    constexpr auto never = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t most = 0;
    for (int run = 0; run < runs; ++run) {
        toBeginningOf(path);
        faults_.begin({.first = never});
        static_cast<void>(ask(path));
        if (shortage.outlastsRequest) {
            static_cast<void>(serves());
        }
        faults_.end();
        most = std::max(most, faults_.made());
    }
    return most;
}

/// False when the path has not come to that allocation this time.
bool MemorySweep::disturb(const Path& path, const Shortage& shortage, std::uint64_t number) {
    toBeginningOf(path);

    const auto begin = std::chrono::steady_clock::now();
    faults_.begin({.first = number, .count = shortage.count, .within = shortage.within});
    const auto reply = ask(path);
    if (shortage.outlastsRequest) {
        static_cast<void>(serves());  // nobody can expect that
        std::this_thread::sleep_until(begin + *shortage.within);
    }
    faults_.end();
    const bool wasMet = faults_.wasMet();

    judge(reply, path);
    return wasMet;
}

const Kind memoryKind{.name = "memory", .arguments = sweepArguments, .run = sweepShortages};

}  // namespace tarnvale::test
