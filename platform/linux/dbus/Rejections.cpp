// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/Rejections.h"

#include <algorithm>

namespace tarnvale::platform {

void Rejections::add(uid_t user, Clock::time_point now) {
    const support::MutexLock lock(mutex_);
    std::erase_if(forgottenAt_, [now](const auto& entry) { return entry.second <= now; });
    auto& forgottenAt = forgottenAt_.try_emplace(user, now).first->second;
    forgottenAt += forgottenAfter;
}

bool Rejections::areTooMany(uid_t user, Clock::time_point now) const {
    const support::MutexLock lock(mutex_);
    const auto known = forgottenAt_.find(user);
    return known != forgottenAt_.end() && known->second > now + (maxAtOnce - 1) * forgottenAfter;
}

}  // namespace tarnvale::platform
