// SPDX-License-Identifier: MIT
//
// A busy machine and a quiet one, made alike for what is measured.

#pragma once

#include <vector>

#include <sys/types.h>

namespace tarnvale::bench {

/// While it lives, this process and whatever it starts run ahead of all others, in real time, and
/// the processors that they leave free are kept awake. A virtual processor that has halted takes
/// tens of microseconds to wake, as long as several requests: on a quiet machine each message
/// between two processors would pay for that, on a busy one none. Where it isn't allowed, it says
/// so and leaves things as they are.
class Precedence {
public:
    Precedence();
    Precedence(const Precedence&) = delete;
    Precedence& operator=(const Precedence&) = delete;
    ~Precedence();

private:
    std::vector<pid_t> wakers_;  ///< one for each processor, which runs when nothing else does
};

}  // namespace tarnvale::bench
