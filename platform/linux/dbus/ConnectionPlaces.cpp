// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/ConnectionPlaces.h"

#include <algorithm>

namespace tarnvale::platform {

std::optional<ConnectionPlaces::Place> ConnectionPlaces::take(const Applicant& applicant) {
    const support::MutexLock lock(mutex_);
    const int left = maxInAll - inAll_;
    const auto known = byUser_.find(applicant.user);
    const int ofUser = known == byUser_.end() ? 0 : known->second;
    // What he has grows and what is left shrinks: they meet halfway.
    const int allowed = applicant.isAdministrator
                            ? std::min(maxForUser, ofUser + left)
                            : std::min(maxForUser, left - keptForAdministrators);
    if (ofUser >= allowed) {
        return std::nullopt;
    }
    ++byUser_[applicant.user];
    ++inAll_;
    return std::optional<Place>(std::in_place, *this, applicant.user);
}

void ConnectionPlaces::giveBack(uid_t user) {
    const support::MutexLock lock(mutex_);
    --inAll_;
    const auto ofUser = byUser_.find(user);
    if (--ofUser->second == 0) {
        byUser_.erase(ofUser);
    }
}

}  // namespace tarnvale::platform
