// SPDX-License-Identifier: MIT
//
// Who may change this machine. A lookup that fails counts as "no".

#pragma once

#include <optional>

#include <sys/types.h>

#include "platform/Users.h"

namespace tarnvale {

/// The system's group of administrators.
inline constexpr gid_t administratorsGroup = 80;

/// Whether the user is root or a member of the administrators' group.
bool isAdministrator(platform::Users& users, uid_t uid);

/// The user who is logged in at the console; nothing when nobody is, the login window included.
std::optional<uid_t> consoleUserID(platform::Users& users);

}  // namespace tarnvale
