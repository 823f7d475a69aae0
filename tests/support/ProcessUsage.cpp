// SPDX-License-Identifier: MIT

#include "tests/support/ProcessUsage.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

std::size_t countIn(const std::string& folder) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

std::size_t childrenOf(pid_t pid) {
    std::size_t count = 0;
    for (const auto& task : fs::directory_iterator(processFile(pid, "task"))) {
        // A thread may end as we look.
        std::ifstream children(task.path() / "children");
        for (pid_t child = 0; children >> child;) {
            ++count;
        }
    }
    return count;
}

}  // namespace

std::string processFile(pid_t pid, std::string_view name) {
    return "/proc/" + std::to_string(pid) + "/" + std::string(name);
}

std::int64_t sumOf(const std::string& file, std::string_view words) {
    std::ifstream input(file);
    std::int64_t sum = 0;
    bool isThere = false;
    for (std::string line; std::getline(input, line);) {
        if (line.starts_with(words)) {
            sum += std::stoll(line.substr(line.find(':') + 1));
            isThere = true;
        }
    }
    if (!isThere) {
        throw std::runtime_error(file + " has no line " + std::string(words));
    }
    return sum;
}

ProcessUsage usageOf(pid_t pid) {
    try {
        return {
            .descriptors = countIn(processFile(pid, "fd")),
            .threads = countIn(processFile(pid, "task")),
            .children = childrenOf(pid),
            .privateKiB = sumOf(processFile(pid, "smaps_rollup"), "Private_")};
    } catch (const std::runtime_error& error) {
        throw std::runtime_error("process " + std::to_string(pid) + ": " + error.what());
    }
}

}  // namespace tarnvale::test
