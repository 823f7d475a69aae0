// SPDX-License-Identifier: MIT
//
// A program that a test runs: its input, its output and its end.

#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "support/UniqueFd.h"

namespace tarnvale::test {

/// What a finished program left.
struct Finished {
    int status = -1;  ///< exit status; 128 and the signal's number when a signal ended it
    std::string output;
    std::string error;
};

/// What a program gets besides its arguments and its input.
struct Surroundings {
    std::vector<std::string> environment;          ///< "NAME=value", besides the test's own
    std::vector<std::pair<int, int>> descriptors;  ///< ours, and the number that it has there
};

/// A program that runs beside the test. Its output goes to files in memory, so it never waits for
/// a reader.
class Program {
public:
    /// Starts `arguments[0]`, a path, in the calling thread's namespaces. Throws
    /// `std::system_error`.
    explicit Program(
        const std::vector<std::string>& arguments,
        std::string_view input = {},
        const Surroundings& surroundings = {});

    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Kills the program if it still runs.
    ~Program();

    /// -1 once its end has been seen.
    pid_t pid() const { return pid_; }

    bool running();

    /// Waits for its end; false when the time is over first.
    bool endsWithin(std::chrono::milliseconds time);

    /// Waits for the end.
    Finished finish();

    /// What it has written so far.
    std::string output() const;
    std::string error() const;

private:
    support::UniqueFd input_;
    support::UniqueFd output_;
    support::UniqueFd error_;
    pid_t pid_ = -1;  ///< -1 once its end has been seen
    int status_ = 0;
};

/// Runs a program to its end.
Finished run(const std::vector<std::string>& arguments, std::string_view input = {});

/// The command line with further arguments.
std::vector<std::string> with(
    std::vector<std::string> command, const std::vector<std::string>& arguments);

/// Kills every process of the private root but this one, its first. Throws `std::logic_error`, and
/// kills nobody, when this process is not the first of its PID namespace: there the signal would
/// reach processes of the whole machine.
void killAllOthers();

}  // namespace tarnvale::test
