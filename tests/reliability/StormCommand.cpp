// SPDX-License-Identifier: MIT
//
// What `scripts/reliability storm` does.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "support/Decimal.h"
#include "tests/reliability/Conclusion.h"
#include "tests/reliability/Kinds.h"
#include "tests/reliability/Storm.h"
#include "tests/support/PrivateRoot.h"

namespace tarnvale::test {
namespace {

using namespace std::chrono_literals;

/// How long the requests run between two looks at what they left.
constexpr std::chrono::milliseconds period = 3s;

std::uint64_t numberFrom(std::string_view word) {
    const auto number =
        support::parseNumber<std::uint64_t>(word, std::numeric_limits<std::uint32_t>::max());
    if (!number) {
        throw std::invalid_argument("not a number: " + std::string(word));
    }
    return *number;
}

int runStorm(const std::vector<std::string>& words) {
    if (words.empty() || words.size() > 2) {
        throw std::invalid_argument("how many seconds?");
    }
    const std::chrono::seconds duration(numberFrom(words[0]));
    if (duration <= 0s) {
        throw std::invalid_argument("how many seconds?");
    }
    if (const auto lack = lackOf(Ability::usersProcesses)) {
        throw std::runtime_error(*lack);
    }
    const StormPlan plan{.seed = words.size() > 1 ? numberFrom(words[1]) : std::random_device()()};
    const auto seed = static_cast<unsigned long long>(plan.seed);
    std::printf("storm: seed %llu, %zu connections\n", seed, plan.connections);
    std::fflush(stdout);

    Storm storm(plan);
    const auto& figures = storm.figures();
    std::size_t printed = 0;
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
        storm.run(period);
        for (; printed < figures.violations.size(); ++printed) {
            std::printf("%s\n", figures.violations[printed].c_str());
            std::fflush(stdout);
        }
    }
    std::printf(
        "storm %llu: %zu requests, %zu without an answer, %zu refused to one of two, %zu kills, "
        "%zu re-applies, %zu looks\n",
        seed,
        figures.requests,
        figures.unanswered,
        figures.refused,
        figures.kills,
        figures.reapplies,
        figures.looks);
    return conclude("storm", figures.violations, missingIn(figures, plan));
}

}  // namespace

const Kind stormKind{.name = "storm", .arguments = "SECONDS [SEED]", .run = runStorm};

}  // namespace tarnvale::test
