// SPDX-License-Identifier: MIT

#include "tests/reliability/Conclusion.h"

#include <cstdio>
#include <cstdlib>

namespace tarnvale::test {

std::vector<std::string> missingIn(const std::vector<Tally>& tallies) {
    std::vector<std::string> missing;
    for (const auto& [count, what] : tallies) {
        if (count == 0) {
            missing.push_back("no " + what);
        }
    }
    return missing;
}

int conclude(
    const std::string& measurement,
    const std::vector<std::string>& violations,
    const std::vector<std::string>& missing) {
    if (violations.empty() && !missing.empty()) {
        std::printf("%s: nothing was measured\n", measurement.c_str());
    } else {
        std::printf("%s: %zu violations\n", measurement.c_str(), violations.size());
    }
    for (const auto& what : missing) {
        std::printf("%s: there was %s\n", measurement.c_str(), what.c_str());
    }
    std::fflush(stdout);
    return violations.empty() && missing.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tarnvale::test
