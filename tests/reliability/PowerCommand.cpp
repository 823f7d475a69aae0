// SPDX-License-Identifier: MIT
//
// What `scripts/reliability power` does.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/reliability/Conclusion.h"
#include "tests/reliability/Kinds.h"
#include "tests/reliability/PowerCuts.h"

namespace tarnvale::test {
namespace {

/// Whether nothing was violated, and it could be measured.
bool cutPowerOf(const FileSystem& fileSystem) {
    if (const auto lack = lackOf(fileSystem)) {
        throw std::runtime_error(*lack);
    }
    const auto figures = cutPower(fileSystem, {});
    for (const auto& violation : figures.violations) {
        std::printf("%s\n", violation.c_str());
    }
    std::printf(
        "%s: %zu requests, %zu writes and %zu flushes of the disk; %zu cuts, %zu disks, %zu "
        "different states of the files\n",
        fileSystem.name,
        figures.requests,
        figures.writes,
        figures.flushes,
        figures.cuts,
        figures.disks,
        figures.trees);
    return conclude(fileSystem.name, figures.violations, missingIn(figures)) == EXIT_SUCCESS;
}

/// The same; where one can't be measured, the next one still can.
bool tryFileSystem(const FileSystem& fileSystem) {
    try {
        return cutPowerOf(fileSystem);
    } catch (const std::exception& error) {
        std::printf("%s: not measured, %s\n", fileSystem.name, error.what());
        std::fflush(stdout);
        return false;
    }
}

int runPower(const std::vector<std::string>& words) {
    bool isClean = true;
    bool isAny = false;
    for (const auto& fileSystem : allFileSystems()) {
        if (words.empty() || words[0] == fileSystem.name) {
            isAny = true;
            isClean = tryFileSystem(fileSystem) && isClean;
        }
    }
    if (!isAny || words.size() > 1) {
        throw std::invalid_argument("no such file system");
    }
    return isClean ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

const Kind powerKind{.name = "power", .arguments = "[ext4|xfs|btrfs]", .run = runPower};

}  // namespace tarnvale::test
