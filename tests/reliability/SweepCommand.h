// SPDX-License-Identifier: MIT
//
// The words [PATH [WAY [FIRST [LAST [STEP]]]]] of a measurement that disturbs each point of a path
// in turn, in one of several ways.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/reliability/Paths.h"
#include "tests/reliability/Sweep.h"

namespace tarnvale::test {

inline constexpr const char* sweepArguments = "[PATH [WAY [FIRST [LAST [STEP]]]]]";

using SweepPath =
    std::function<Outcome(const Path& path, const std::string& way, const Points& points)>;

/// Sweeps the paths that the words name in the ways that they name; "all" stands for all of them.
/// Prints how many points there were and each violation. Returns the status of the program: 1 if
/// there was a violation, or nothing was measured. Throws `std::invalid_argument` for other words.
int sweepPaths(
    const std::vector<std::string>& words,
    const std::vector<std::string>& ways,
    const SweepPath& sweep);

}  // namespace tarnvale::test
