// SPDX-License-Identifier: MIT

#include "bench/Programs.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
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

void installPfctl(const std::string& program) {
    std::filesystem::remove("/sbin/pfctl");
    std::filesystem::copy_file(program, "/sbin/pfctl");
}

RunningProgram::RunningProgram(const std::vector<std::string>& words, const Variables& variables)
    : path_(words.at(0)) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    pid_ = ::fork();
    require(pid_ >= 0, "fork");
    if (pid_ == 0) {
        const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            ::dup2(nowhere, standard);
        }
        for (const auto& [name, value] : variables) {
            ::setenv(name.c_str(), value.c_str(), 1);
        }
        ::execv(arguments[0], arguments.data());
        ::_exit(EXIT_FAILURE);
    }
}

RunningProgram::~RunningProgram() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

void RunningProgram::requireRunning() {
    if (pid_ < 0 || ::waitpid(pid_, nullptr, WNOHANG) != 0) {
        pid_ = -1;
        throw std::runtime_error(path_ + " has ended");
    }
}

void RunningProgram::end() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
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
