// SPDX-License-Identifier: MIT
//
// Whole programs, run and measured beside a floor in the same run.

#pragma once

#include <functional>
#include <string>
#include <vector>

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
