// SPDX-License-Identifier: MIT
//
// Becoming the user that root wants to act for. The helper goes by the effective user ID that a
// connection was made with.

#pragma once

#include <string>

namespace tarnvale::helperctl {

/// Gives this process the user's IDs and groups, and none of root's, for good. Throws
/// `std::runtime_error`, a sentence; the process may then be half changed and should end. The
/// system lets no process of that user look into this one, as it lets none into a set-user-ID
/// program.
void actAs(const std::string& userName);

}  // namespace tarnvale::helperctl
