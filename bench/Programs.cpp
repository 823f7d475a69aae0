// SPDX-License-Identifier: MIT

#include "bench/Programs.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarnvale::bench {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

void require(bool condition, const char* step) {
    if (!condition) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

double microseconds(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

Cost runProgram(std::vector<std::string> words) {
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions{};
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

    rusage usage{};
    Cost cost;
    cost.microseconds = microseconds([&] {
        pid_t child = -1;
        errno = ::posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
        require(errno == 0, arguments[0]);
        int status = 0;
        require(::wait4(child, &status, 0, &usage) == child && status == 0, arguments[0]);
    });
    ::posix_spawn_file_actions_destroy(&actions);
    cost.peakKibibytes = usage.ru_maxrss;
    return cost;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

Comparison compare(
    int rounds, const std::function<double()>& measured, const std::function<double()>& floor) {
    std::vector<double> times;
    std::vector<double> floors;
    for (int round = 0; round < rounds; ++round) {
        times.push_back(measured());
        floors.push_back(floor());
    }
    return {.measured = median(std::move(times)), .floor = median(std::move(floors))};
}

void printRow(const std::string& name, const Comparison& comparison, const std::string& unit) {
    std::printf(
        "%-44s %12.2f %s %12.2f %s %8.2fx\n",
        name.c_str(),
        comparison.measured,
        unit.c_str(),
        comparison.floor,
        unit.c_str(),
        comparison.ratio());
    std::fflush(stdout);
}

void printRow(const std::string& name, double measured, const std::string& unit) {
    std::printf("%-44s %12.2f %s\n", name.c_str(), measured, unit.c_str());
    std::fflush(stdout);
}

}  // namespace tarnvale::bench
