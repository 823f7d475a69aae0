// SPDX-License-Identifier: MIT

#include "core/service/CallerAuthorization.h"

#include <string>

#include "core/base/Administrators.h"
#include "core/base/HelperLog.h"

namespace tarnvale {

namespace {

/// The ID of no user. Somebody is at the console, but no caller is.
constexpr uid_t unknownUser = static_cast<uid_t>(-1);

}  // namespace

std::optional<uid_t> consoleUserID(platform::Users& users) {
    const auto user = users.consoleUser();
    // The login window has root's uid; only its name distinguishes it from root at the console.
    if (!user || user->name == platform::loginWindowName) {
        return std::nullopt;
    }
    return user->name.empty() ? unknownUser : user->uid;
}

std::optional<uid_t> authorizeCaller(
    const platform::Transport& transport,
    platform::Users& users,
    bool adminOnly,
    std::string_view operation) {
    const auto uid = transport.currentEffectiveUserID();
    if (!uid) {
        return std::nullopt;
    }
    if (isAdministrator(users, *uid) || (!adminOnly && consoleUserID(users) == uid)) {
        return uid;
    }
    helperLog(
        "Refused " + std::string(operation) + " for uid " + std::to_string(*uid) +
        (adminOnly ? ": not an administrator." : ": not an administrator or the console user."));
    return std::nullopt;
}

}  // namespace tarnvale
