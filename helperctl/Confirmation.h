// SPDX-License-Identifier: MIT
//
// Puts a user's stored networks back unless somebody confirms the new ones in time: a change of the
// firewall may cut off whoever makes it.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "helperctl/Answer.h"
#include "helperctl/Session.h"

namespace tarnvale::helperctl {

/// The stored networks of the user that a command line names, of root if it names none, as a file;
/// nothing if none are stored. Only root may read the store. Throws `std::runtime_error`.
std::optional<std::string> storedNetworksOf(const std::optional<std::string>& user);

/// From now on, signals that would end the process only keep it from being confirmed. They must not
/// leave the new networks in force, nor interrupt putting the earlier ones back.
void noteInterruptions();

/// Waits until a line "yes" comes from the descriptor. Returns false when the time is over, at
/// another line, at the end of the input, and after an interruption.
bool isConfirmed(int descriptor, std::int64_t seconds);

/// Has the helper enforce the earlier networks again, or none.
Outcome putBack(const std::optional<std::string>& earlier, const Connect& connect);

}  // namespace tarnvale::helperctl
