// SPDX-License-Identifier: MIT
//
// Turns a process of root's into one of the user that root wants to act for. The helper judges a
// connection by the effective user ID that it was made with.

#pragma once

#include <string>

namespace tarnvale::helperctl {

/// Gives this process the user's IDs and groups, and none of root's, for good. Throws
/// `std::runtime_error` with a sentence; the process may then be half changed and should end. As
/// with a set-user-ID program, the system lets no process of that user look into this one.
void actAs(const std::string& userName);

}  // namespace tarnvale::helperctl
