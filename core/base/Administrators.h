// SPDX-License-Identifier: MIT
//
// Who counts as an administrator of this machine.

#pragma once

#include <sys/types.h>

#include "platform/Users.h"

namespace tarnvale {

/// The system's group of administrators.
inline constexpr gid_t administratorsGroup = 80;

/// Whether the user is root or a member of the administrators' group. A failed lookup counts as
/// "no".
bool isAdministrator(platform::Users& users, uid_t uid);

}  // namespace tarnvale
