// SPDX-License-Identifier: MIT
//
// A program that a test runs: its input, its output and its end.

#pragma once

#include <string>
#include <string_view>
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

/// A program that runs beside the test. Its output goes to files in memory, so it never waits for
/// a reader.
class Program {
public:
    /// Starts `arguments[0]`, a path, in the calling thread's namespaces. Throws
    /// `std::system_error`.
    explicit Program(const std::vector<std::string>& arguments, std::string_view input = {});

    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Kills the program if it still runs.
    ~Program();

    bool running();

    /// Waits for the end.
    Finished finish();

private:
    support::UniqueFd input_;
    support::UniqueFd output_;
    support::UniqueFd error_;
    pid_t pid_ = -1;  ///< -1 once its end has been seen
    int status_ = 0;
};

/// Runs a program to its end.
Finished run(const std::vector<std::string>& arguments, std::string_view input = {});

}  // namespace tarnvale::test
