// SPDX-License-Identifier: MIT

#include "core/CallerAuthorization.h"

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

}  // namespace tarnvale
