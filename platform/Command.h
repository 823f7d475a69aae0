// SPDX-License-Identifier: MIT
//
// Runs a program as a child process and collects what it prints.

#pragma once

#include <string>
#include <vector>

namespace tarnvale::platform {

/// The outcome of one run. The texts are UTF-8, with invalid sequences replaced.
struct CommandResult {
    int status = -1;  ///< exit status; 128 + N after signal N; -1 when not started
    std::string standardOutput;
    std::string standardError;  ///< for a program that could not be started, the reason

    bool operator==(const CommandResult&) const = default;
};

/// Runs the executable to its end. Throws only when memory runs out. The child inherits standard
/// input, environment and working directory, writes its output to us and has no other descriptor;
/// it blocks no signal and handles each by default. Defined once, in platform/posix.
CommandResult runCommand(
    const std::string& executablePath, const std::vector<std::string>& arguments);

}  // namespace tarnvale::platform
