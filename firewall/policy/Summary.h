// SPDX-License-Identifier: MIT
//
// What a review comes to, in the sentences that users and the log read.

#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "firewall/policy/Review.h"

namespace tarnvale::NetworkFirewall {

/// What is in force for everybody.
std::string summaryForAllUsers(const Review& all);

/// What the user's own list comes to, and how many networks other users have stored.
std::string summaryForCaller(const Review& own, std::size_t otherUsersNetworks);

/// One line for each note: what it is about and the problem.
std::vector<std::string> linesOf(std::span<const Note> notes);

}  // namespace tarnvale::NetworkFirewall
