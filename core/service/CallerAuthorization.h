// SPDX-License-Identifier: MIT
//
// Who may change this machine. A lookup that fails counts as "no".

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

#include "platform/Transport.h"
#include "platform/Users.h"

namespace tarnvale {

/// What a caller who may not make a change is told.
inline constexpr std::string_view refusalMessage =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.";

/// The user who is logged in at the console; nothing when nobody is, the login window included.
std::optional<uid_t> consoleUserID(platform::Users& users);

/// Whether the user whose request this thread serves may make a change: an administrator always,
/// the user at the console unless `adminOnly`. Nothing when allowed; else the refusal, which is
/// logged with the `operation`'s name.
std::optional<std::string> authorizeCaller(
    const platform::Transport& transport,
    platform::Users& users,
    bool adminOnly,
    std::string_view operation);

}  // namespace tarnvale
