// SPDX-License-Identifier: MIT
//
// What a process uses of the machine, as /proc shows it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace tarnvale::test {

struct ProcessUsage {
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    std::size_t children = 0;
    std::int64_t privateKiB = 0;  ///< memory that is the process's alone

    bool operator==(const ProcessUsage&) const = default;
};

/// Throws `std::runtime_error` if the process has ended, also if nobody has waited for it yet.
ProcessUsage usageOf(pid_t pid);

/// A file of the process in /proc, such as "status".
std::string processFile(pid_t pid, std::string_view name);

/// The numbers in a file of /proc on lines that begin with these words, such as "VmHWM:", added up.
/// Throws `std::runtime_error` where there is no such line.
std::int64_t sumOf(const std::string& file, std::string_view words);

}  // namespace tarnvale::test
