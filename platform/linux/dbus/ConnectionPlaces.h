// SPDX-License-Identifier: MIT
//
// The places for open connections, and who gets how many of them.

#pragma once

#include <map>
#include <optional>
#include <utility>

#include <sys/types.h>

#include "support/Mutex.h"

namespace tarnvale::platform {

/// Somebody who wants a place.
struct Applicant {
    uid_t user = 0;
    bool isAdministrator = false;  ///< root is one
};

/// Safe from any thread.
class ConnectionPlaces {
public:
    static constexpr int maxInAll = 256;
    static constexpr int maxForUser = 64;
    /// Only administrators get the last ones.
    static constexpr int keptForAdministrators = 32;

    /// One connection's place; given back at its end.
    class Place {
    public:
        Place(ConnectionPlaces& places, uid_t user) : places_(&places), user_(user) {}
        Place(Place&& other) noexcept
            : places_(std::exchange(other.places_, nullptr)), user_(other.user_) {}
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        ~Place() {
            if (places_ != nullptr) {
                places_->giveBack(user_);
            }
        }

    private:
        ConnectionPlaces* places_;
        uid_t user_;
    };

    /// Nothing when there is no place for the applicant. A user who is no administrator never gets
    /// more places than he leaves to others: the more he has, the fewer are his for the taking.
    std::optional<Place> take(const Applicant& applicant) EXCLUDES(mutex_);

private:
    void giveBack(uid_t user) EXCLUDES(mutex_);

    support::Mutex mutex_;
    std::map<uid_t, int> byUser_ GUARDED_BY(mutex_);
    int inAll_ GUARDED_BY(mutex_) = 0;
};

}  // namespace tarnvale::platform
