// SPDX-License-Identifier: MIT
//
// Runs a program as a child process and collects what it prints.

#pragma once

#include <string>
#include <vector>

namespace tarnvale::HelperFirewall {

/// The outcome of one run. The texts are UTF-8, invalid sequences replaced.
struct CommandResult {
    int status = -1;  ///< exit status; 128 + N after signal N; -1 when not started
    std::string standardOutput;
    std::string standardError;  ///< why it could not be started, when it could not

    bool operator==(const CommandResult&) const = default;
};

/// Runs the executable to its end and never throws but for want of memory. The child gets standard
/// input as it is, its output goes to us, and it has no other descriptor; it blocks no signal and
/// handles each by default. Environment and working directory are inherited.
CommandResult runCommand(
    const std::string& executablePath, const std::vector<std::string>& arguments);

}  // namespace tarnvale::HelperFirewall
