// SPDX-License-Identifier: MIT
//
// Says which step of a test's preparations the system refused.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace tarnvale::test {

/// Throws std::system_error for errno, with the step in its text.
[[noreturn]] inline void fail(const std::string& step) {
    throw std::system_error(errno, std::generic_category(), step);
}

}  // namespace tarnvale::test
