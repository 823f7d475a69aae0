// SPDX-License-Identifier: MIT
//
// Puts the outcome of a review into the sentences that users and the log read.

#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "firewall/policy/Review.h"

namespace tarnvale::NetworkFirewall {

/// Says what is in force for all users.
std::string summaryForAllUsers(const Review& all);

/// Says what is in force of the user's own list, and how many networks other users have stored.
std::string summaryForCaller(const Review& own, std::size_t otherUsersNetworks);

/// One line for each note: its label and its problem.
std::vector<std::string> linesOf(std::span<const Note> notes);

}  // namespace tarnvale::NetworkFirewall
