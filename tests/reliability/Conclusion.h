// SPDX-License-Identifier: MIT
//
// How a measurement ends. That nothing was violated says something only if what could have been
// was there.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tarnvale::test {

/// What a measurement should have had, and how often it had it.
struct Tally {
    std::size_t count = 0;
    std::string what{};  ///< in the singular, such as "kill"
};

/// "no kill", for each that there was none of.
std::vector<std::string> missingIn(const std::vector<Tally>& tallies);

/// Prints how many violations there were; if something is missing, that nothing was measured.
/// Returns the status of the program: 0 if nothing was violated and nothing is missing.
int conclude(
    const std::string& measurement,
    const std::vector<std::string>& violations,
    const std::vector<std::string>& missing);

}  // namespace tarnvale::test
