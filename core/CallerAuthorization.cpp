// SPDX-License-Identifier: MIT

#include "core/CallerAuthorization.h"

#include "core/HelperLog.h"

namespace tarnvale {

bool isAdministrator(platform::Users& users, uid_t uid) {
    return uid == 0 || users.isMember(uid, administratorsGroup);
}

std::optional<uid_t> consoleUserID(platform::Users& users) {
    const auto user = users.consoleUser();
    // The login window has root's uid, so only its name tells it from root at the console.
    if (!user || user->name == platform::loginWindowName) {
        return std::nullopt;
    }
    return user->uid;
}

std::optional<std::string> authorizeCaller(
    const platform::Transport& transport,
    platform::Users& users,
    bool adminOnly,
    std::string_view operation) {
    const auto uid = transport.currentEffectiveUserID();
    if (!uid) {
        return std::string(refusalMessage);
    }
    if (isAdministrator(users, *uid) || (!adminOnly && consoleUserID(users) == uid)) {
        return std::nullopt;
    }
    helperLog(
        "Refused " + std::string(operation) + " for uid " + std::to_string(*uid) +
        (adminOnly ? ": not an administrator." : ": not an administrator or the console user."));
    return std::string(refusalMessage);
}

}  // namespace tarnvale
