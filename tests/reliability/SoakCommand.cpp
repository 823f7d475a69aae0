// SPDX-License-Identifier: MIT
//
// What `scripts/reliability soak` does.

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Decimal.h"
#include "tests/reliability/Conclusion.h"
#include "tests/reliability/Kinds.h"
#include "tests/reliability/Soak.h"
#include "tests/support/PrivateRoot.h"

namespace tarnvale::test {
namespace {

void print(const char* when, const ProcessUsage& usage) {
    std::printf(
        "%s: %zu descriptors, %zu threads, %zu children, %lld KiB private\n",
        when,
        usage.descriptors,
        usage.threads,
        usage.children,
        static_cast<long long>(usage.privateKiB));
}

int runSoak(const std::vector<std::string>& words) {
    const auto seconds = words.size() == 1 ? support::parseDecimal(words[0]) : std::nullopt;
    if (!seconds || *seconds <= 0) {
        throw std::invalid_argument("how many seconds?");
    }
    if (const auto lack = lackOf(Ability::usersProcesses)) {
        throw std::runtime_error(*lack);
    }
    const auto figures = soak({.duration = std::chrono::seconds(*seconds)});
    for (const auto& violation : figures.violations) {
        std::printf("%s\n", violation.c_str());
    }
    print("first part", figures.first);
    print("later", figures.last);
    std::printf("soak: %zu requests, %zu looks\n", figures.requests, figures.looks);
    return conclude("soak", figures.violations, missingIn(figures));
}

}  // namespace

const Kind soakKind{.name = "soak", .arguments = "SECONDS", .run = runSoak};

}  // namespace tarnvale::test
