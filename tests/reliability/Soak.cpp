// SPDX-License-Identifier: MIT

#include "tests/reliability/Soak.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "tests/reliability/Conclusion.h"
#include "tests/reliability/Storm.h"

namespace tarnvale::test {
namespace {

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

ProcessUsage mostOf(const ProcessUsage& one, const ProcessUsage& other) {
    return {
        .descriptors = std::max(one.descriptors, other.descriptors),
        .threads = std::max(one.threads, other.threads),
        .children = std::max(one.children, other.children),
        .privateKiB = std::max(one.privateKiB, other.privateKiB)};
}

bool isWithin(const ProcessUsage& usage, const ProcessUsage& bounds) {
    return usage.descriptors <= bounds.descriptors && usage.threads <= bounds.threads &&
           usage.children == 0 && usage.privateKiB <= bounds.privateKiB + maxKeptKiB;
}

/// What it uses when nobody asks any more and all that has ended is gone: the same for a moment.
ProcessUsage restingUsageOf(pid_t pid) {
    constexpr int sames = 10;
    const auto end = Clock::now() + settleLimit;
    auto usage = usageOf(pid);
    for (int count = 0; count < sames && Clock::now() < end; ++count) {
        std::this_thread::sleep_for(20ms);
        const auto now = usageOf(pid);
        if (now != usage) {
            count = 0;
        }
        usage = now;
    }
    return usage;
}

/// The same, but it may take its time to get back to these bounds.
ProcessUsage settledUsageOf(pid_t pid, const ProcessUsage& bounds) {
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

std::vector<std::string> missingIn(const SoakFigures& figures) {
    auto missing = missingIn(std::vector<Tally>{
        {figures.requests, "request"},
        {figures.looks - figures.laterLooks, "look in the first part"},
        {figures.laterLooks, "later look"}});
    missing.insert(missing.end(), figures.missing.begin(), figures.missing.end());
    return missing;
}

SoakFigures soak(const SoakPlan& plan) {
    const StormPlan stormPlan{
        .seed = plan.seed, .connections = plan.connections, .isDisturbed = false};
    // Each of the allocator's arenas keeps free memory, and how many there are depends on the
    // machine and on what else it does.
    ::setenv("MALLOC_ARENA_MAX", "4", 1);
    Storm storm(stormPlan);
    ::unsetenv("MALLOC_ARENA_MAX");
    const pid_t helper = storm.helper();

    SoakFigures figures;
    const auto begin = Clock::now();
    constexpr int parts = 5;
    std::size_t firstLooks = 0;
    const auto isEnough = [&] {
        return !storm.figures().violations.empty() ||
               (figures.laterLooks >= minLooks && storm.figures().requests >= plan.minRequests &&
                missingIn(storm.figures(), stormPlan).empty());
    };
    while (Clock::now() < begin + plan.duration ||
           (!isEnough() && Clock::now() < begin + plan.duration + extraLimit)) {
        const bool isFirst = firstLooks < minLooks || Clock::now() < begin + plan.duration / parts;
        storm.run(plan.period);
        // A storm looks whether its helper has ended, and starts another one then. Nobody has
        // waited for the end of this one, so that no other can have got its number.
        if (storm.helper() != helper) {
            break;
        }
        storm.disconnect();
        ++figures.looks;
        if (isFirst) {
            ++firstLooks;
            figures.first = mostOf(figures.first, restingUsageOf(helper));
        } else {
            ++figures.laterLooks;
            figures.last = mostOf(figures.last, settledUsageOf(helper, figures.first));
        }
    }
    const auto& left = storm.figures();
    figures.requests = left.requests - left.unanswered;
    figures.violations = left.violations;
    figures.missing = missingIn(left, stormPlan);
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
