// SPDX-License-Identifier: MIT
//
// Decides which users may change this machine. A failed lookup counts as "no".

#pragma once

#include <optional>
#include <string_view>

#include <sys/types.h>

#include "platform/Transport.h"
#include "platform/Users.h"

namespace tarnvale {

/// The error for a caller who may not make a change.
inline constexpr std::string_view refusalMessage =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.";

/// The user who is logged in at the console; nobody's ID if the user's name can't be found out.
/// Nothing if nobody is, as when the login window shows.
std::optional<uid_t> consoleUserID(platform::Users& users);

/// Returns the user whose request this thread serves, if that user may make the change:
/// administrators always may, and the user at the console may unless `adminOnly`. Otherwise returns
/// nothing and logs the refusal, which names the `operation`.
std::optional<uid_t> authorizeCaller(
    const platform::Transport& transport,
    platform::Users& users,
    bool adminOnly,
    std::string_view operation);

}  // namespace tarnvale
