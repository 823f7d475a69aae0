// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/BytesInFlight.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <sys/eventfd.h>

namespace tarnvale::platform {

int BytesInFlight::Room::ask(std::size_t size) {
    taken_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!taken_) {
        throw std::system_error(errno, std::generic_category());
    }
    const support::MutexLock lock(all_.mutex_);
    const bool isLarge = size > maxForUser;
    all_.accountOf(user_, isLarge)->waiting.push_back(this);
    isLarge_ = isLarge;
    size_ = size;
    all_.grantAll();
    return taken_.get();
}

void BytesInFlight::Room::cover(std::size_t size) {
    if (size <= size_) {
        return;
    }
    const support::MutexLock lock(all_.mutex_);
    all_.take(*all_.accountOf(user_, isLarge_), size - size_);
    size_ = size;
}

void BytesInFlight::Room::giveBack() noexcept {
    if (size_ == 0) {
        return;
    }
    const support::MutexLock lock(all_.mutex_);
    const auto account = all_.accountOf(user_, isLarge_);
    const auto place = std::find(account->waiting.begin(), account->waiting.end(), this);
    if (place != account->waiting.end()) {
        account->waiting.erase(place);
    } else {
        account->size -= size_;
        if (isLarge_) {
            all_.isLargePlaceTaken_ = false;
        } else {
            all_.inAll_ -= size_;
        }
    }
    if (account->size == 0 && account->waiting.empty()) {
        all_.accounts_.erase(account);
    }
    size_ = 0;
    isLarge_ = false;
    all_.grantAll();
}

/// A new one if there is none.
BytesInFlight::Accounts::iterator BytesInFlight::accountOf(uid_t user, bool isLarge) {
    const auto known =
        std::find_if(accounts_.begin(), accounts_.end(), [&](const Account& account) {
            return account.user == user && account.isLarge == isLarge;
        });
    return known != accounts_.end()
               ? known
               : accounts_.insert(accounts_.end(), Account{.user = user, .isLarge = isLarge});
}

void BytesInFlight::take(Account& account, std::size_t size) {
    account.size += size;
    if (account.isLarge) {
        isLargePlaceTaken_ = true;
    } else {
        inAll_ += size;
    }
}

void BytesInFlight::grantAll() noexcept {
    while (grantNext()) {
    }
}

/// Of two users who wait until there is less in all, the second doesn't overtake the first, however
/// little he wants.
bool BytesInFlight::grantNext() noexcept {
    bool isFull = false;
    for (auto account = accounts_.begin(); account != accounts_.end(); ++account) {
        if (account->waiting.empty()) {
            continue;
        }
        const Room& next = *account->waiting.front();
        bool mayTake = false;
        if (account->isLarge) {
            mayTake = !isLargePlaceTaken_;
        } else if (account->size + next.size_ <= maxForUser) {
            isFull = isFull || inAll_ + next.size_ > maxInAll;
            mayTake = !isFull;
        }
        if (mayTake) {
            take(*account, next.size_);
            account->waiting.pop_front();
            ::eventfd_write(next.taken_.get(), 1);
            accounts_.splice(accounts_.end(), accounts_, account);
            return true;
        }
    }
    return false;
}

}  // namespace tarnvale::platform
