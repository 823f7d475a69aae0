// SPDX-License-Identifier: MIT

#include "tests/reliability/Soak.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/reliability/Storm.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// The allocator keeps free memory in pieces that differ from one look to the next.
constexpr std::int64_t maxKeptKiB = 2048;

/// Of the first part, and of the later one.
constexpr std::size_t minLooks = 2;

/// How much longer than planned it goes on until there has been enough.
constexpr auto extraLimit = 120s;

/// How long the helper may take to notice that connections have ended.
constexpr auto settleLimit = 10s;

std::size_t countIn(const std::string& folder) {
    std::error_code ended;
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder, ended), fs::directory_iterator()));
}

std::size_t childrenOf(pid_t pid) {
    std::size_t count = 0;
    std::error_code ended;
    for (const auto& task :
         fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ended)) {
        std::ifstream children(task.path() / "children");
        for (pid_t child = 0; children >> child;) {
            ++count;
        }
    }
    return count;
}

Usage mostOf(const Usage& one, const Usage& other) {
    return {
        .descriptors = std::max(one.descriptors, other.descriptors),
        .threads = std::max(one.threads, other.threads),
        .children = std::max(one.children, other.children),
        .privateKiB = std::max(one.privateKiB, other.privateKiB)};
}

bool isWithin(const Usage& usage, const Usage& bounds) {
    return usage.descriptors <= bounds.descriptors && usage.threads <= bounds.threads &&
           usage.children == 0 && usage.privateKiB <= bounds.privateKiB + maxKeptKiB;
}

/// What it uses when nobody asks any more: the least of a moment, since what has ended takes a
/// while to go.
Usage settledUsageOf(pid_t pid, const Usage& bounds) {
    const auto end = Clock::now() + settleLimit;
    while (true) {
        const auto usage = usageOf(pid);
        if (isWithin(usage, bounds) || Clock::now() > end) {
            return usage;
        }
        std::this_thread::sleep_for(20ms);
    }
}

void describe(
    std::vector<std::string>& violations, const char* what, std::int64_t before, std::int64_t now) {
    violations.push_back(
        std::string(what) + ": " + std::to_string(before) + " at first, " + std::to_string(now));
}

}  // namespace

Usage usageOf(pid_t pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    Usage usage{
        .descriptors = countIn(process + "/fd"),
        .threads = countIn(process + "/task"),
        .children = childrenOf(pid),
        .privateKiB = 0};
    std::ifstream memory(process + "/smaps_rollup");
    for (std::string line; std::getline(memory, line);) {
        if (line.starts_with("Private_")) {
            usage.privateKiB += std::stoll(line.substr(line.find(':') + 1));
        }
    }
    return usage;
}

SoakFigures soak(const SoakPlan& plan) {
    // Each of the allocator's arenas keeps free memory, and how many there are depends on the
    // machine and on what else it does.
    ::setenv("MALLOC_ARENA_MAX", "4", 1);
    Storm storm({.seed = plan.seed, .connections = plan.connections, .isDisturbed = false});
    ::unsetenv("MALLOC_ARENA_MAX");
    const pid_t helper = storm.helper();

    SoakFigures figures;
    const auto begin = Clock::now();
    constexpr int parts = 5;
    std::size_t firstLooks = 0;
    const auto isEnough = [&] {
        return figures.looks >= firstLooks + minLooks &&
               storm.figures().requests >= plan.minRequests;
    };
    while (Clock::now() < begin + plan.duration ||
           (!isEnough() && Clock::now() < begin + plan.duration + extraLimit)) {
        const bool isFirst = firstLooks < minLooks || Clock::now() < begin + plan.duration / parts;
        storm.run(plan.period);
        storm.disconnect();
        ++figures.looks;
        if (isFirst) {
            ++firstLooks;
            std::this_thread::sleep_for(500ms);
            figures.first = mostOf(figures.first, usageOf(helper));
            continue;
        }
        const auto usage = settledUsageOf(helper, figures.first);
        figures.last = mostOf(figures.last, usage);
    }
    figures.requests = storm.figures().requests;
    figures.violations = storm.figures().violations;
    if (storm.helper() != helper) {
        figures.violations.emplace_back("the helper is not the same any more");
    }
    if (!isWithin(figures.last, figures.first)) {
        const auto& [descriptors, threads, children, memory] = figures.first;
        const auto number = [](std::size_t count) { return static_cast<std::int64_t>(count); };
        describe(
            figures.violations,
            "descriptors",
            number(descriptors),
            number(figures.last.descriptors));
        describe(figures.violations, "threads", number(threads), number(figures.last.threads));
        describe(figures.violations, "children", number(children), number(figures.last.children));
        describe(figures.violations, "KiB", memory, figures.last.privateKiB);
    }
    return figures;
}

}  // namespace tarnvale::test
