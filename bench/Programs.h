// SPDX-License-Identifier: MIT
//
// Whole programs, run and measured beside a floor in the same run.

#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace tarnvale::bench {

/// Throws `std::system_error` with errno and the step when the condition does not hold.
void require(bool condition, const char* step);

/// What one run of a program cost.
struct Cost {
    double microseconds = 0;
    long peakKibibytes = 0;  ///< the largest resident set of the program and of those it waited for
};

/// Runs the program to its end, its output thrown away. Throws `std::system_error` unless it
/// succeeds.
Cost runProgram(std::vector<std::string> words);

/// A program that runs beside what is measured, its output thrown away.
class RunningProgram {
public:
    using Variables = std::vector<std::pair<std::string, std::string>>;

    /// Starts it with these variables in its environment. Throws `std::system_error` when no
    /// process can be made; that it can't become the program, `requireRunning` says.
    explicit RunningProgram(const std::vector<std::string>& words, const Variables& variables = {});
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    /// Kills the program.
    ~RunningProgram();

    /// Throws `std::runtime_error` when it has ended.
    void requireRunning();

    /// Asks it to end, and waits until it has.
    void end();

private:
    std::string path_;
    pid_t pid_ = -1;  ///< -1 once it has been waited for
};

/// Puts the program in the place of the packet filter's: in a private root.
void installPfctl(const std::string& program);

/// The time that the work takes.
double microseconds(const std::function<void()>& work);

double median(std::vector<double> values);

/// The median times of two pieces of work, in microseconds. They take turns, so that whatever else
/// the machine does affects both.
struct Comparison {
    double measured = 0;
    double floor = 0;

    double ratio() const { return measured / floor; }
};
Comparison compare(
    int rounds, const std::function<double()>& measured, const std::function<double()>& floor);

/// Prints one row of a table of figures, the ratio last.
void printRow(
    const std::string& name, const Comparison& comparison, const std::string& unit = "us");

/// Prints a row of a figure that has no floor.
void printRow(const std::string& name, double measured, const std::string& unit);

}  // namespace tarnvale::bench
