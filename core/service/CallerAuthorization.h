// SPDX-License-Identifier: MIT
//
// Who may change this machine. A lookup that fails counts as "no".

#pragma once

#include <optional>
#include <string_view>

#include <sys/types.h>

#include "platform/Transport.h"
#include "platform/Users.h"

namespace tarnvale {

/// The error that a caller gets who may not make a change.
inline constexpr std::string_view refusalMessage =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.";

/// The user who is logged in at the console; nothing when nobody is, the login window included.
std::optional<uid_t> consoleUserID(platform::Users& users);

/// The user whose request this thread serves, if that user may make a change: an administrator
/// always, the user at the console unless `adminOnly`. Anybody else is refused: the result is
/// nothing, and the log names the `operation`.
std::optional<uid_t> authorizeCaller(
    const platform::Transport& transport,
    platform::Users& users,
    bool adminOnly,
    std::string_view operation);

}  // namespace tarnvale
