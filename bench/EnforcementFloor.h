// SPDX-License-Identifier: MIT
//
// The floor of whatever enforces a list: its child processes doing nothing, its files, and the
// kernel's part.

#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "netlink/Messages.h"

namespace tarnvale::bench {

/// Runs the program that does nothing, so many times, one after the other.
void runEmptyPrograms(int count);

/// What every apply needs: runs of a program, the ruleset written durably, and the kernel taking
/// over the same rules. The rules are those of the ruleset that the helper wrote last; they change
/// places with themselves in tables of their own.
class EnforcementFloor {
public:
    explicit EnforcementFloor(int children);

    /// Microseconds.
    double operator()();

private:
    const std::array<std::string, 2> tables_{"floor", "floor/"};

    int children_;
    std::string text_;
    std::array<netlink::MessageWriter, 2> loads_;
    std::array<netlink::MessageWriter, 2> removals_;
    std::size_t next_ = 0;
};

}  // namespace tarnvale::bench
