// SPDX-License-Identifier: MIT
//
// Requests of all kinds for a long time, during which the helper must not grow.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/ProcessUsage.h"

namespace tarnvale::test {

struct SoakPlan {
    std::chrono::milliseconds duration{};
    std::uint64_t seed = 1;
    std::size_t connections = 32;
    std::chrono::milliseconds period{3000};  ///< between two looks
    std::size_t minRequests = 0;             ///< for which it goes on longer on a slow machine
};

struct SoakFigures {
    std::size_t requests = 0;  ///< that were answered
    std::size_t looks = 0;
    std::size_t laterLooks = 0;             ///< of these
    ProcessUsage first{};                   ///< the most of the looks of the first part
    ProcessUsage last{};                    ///< the most of the later ones
    std::vector<std::string> violations{};  ///< a sentence each
    std::vector<std::string> missing{};     ///< of what its requests can't do without
};

/// What a soak can't do without (Conclusion.h).
std::vector<std::string> missingIn(const SoakFigures& figures);

/// The first fifth of the time, and at least two looks, show what the helper needs. Later it uses
/// no more, and neither a child nor a connection is left when nobody asks. In a private root with
/// several users.
SoakFigures soak(const SoakPlan& plan);

}  // namespace tarnvale::test
