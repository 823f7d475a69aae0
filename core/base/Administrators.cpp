// SPDX-License-Identifier: MIT

#include "core/base/Administrators.h"

namespace tarnvale {

bool isAdministrator(platform::Users& users, uid_t uid) {
    return uid == 0 || users.isMember(uid, administratorsGroup);
}

}  // namespace tarnvale
