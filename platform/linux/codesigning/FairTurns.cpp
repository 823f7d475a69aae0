// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/FairTurns.h"

#include <algorithm>

namespace tarnvale::platform {

std::optional<FairTurns::Turn> FairTurns::take(uid_t user, const Deadline& deadline) {
    if (deadline.isOver()) {
        return std::nullopt;
    }
    const support::MutexLock lock(mutex_);
    if (free_ > 0) {
        --free_;
    } else if (!await(user, deadline)) {
        return std::nullopt;
    }
    return std::optional<Turn>(std::in_place, *this);
}

bool FairTurns::await(uid_t user, const Deadline& deadline) {
    // Whatever takes memory comes first, so that no user is left without a thread.
    Thread self;
    std::list<Thread*> last{&self};
    const auto isOfUser = [user](const User& waiting) { return waiting.user == user; };
    auto mine = std::find_if(waiting_.begin(), waiting_.end(), isOfUser);
    if (mine == waiting_.end()) {
        mine = waiting_.insert(waiting_.end(), User{.user = user, .threads = {}});
    }
    mine->threads.splice(mine->threads.end(), last);

    while (!self.isCalled && !deadline.isOver()) {
        if (deadline == Deadline()) {
            self.called.wait(mutex_);
        } else {
            self.called.wait_until(mutex_, deadline.time());
        }
    }
    if (self.isCalled) {
        return true;
    }

    mine = std::find_if(waiting_.begin(), waiting_.end(), isOfUser);
    mine->threads.remove(&self);
    if (mine->threads.empty()) {
        waiting_.erase(mine);
    }
    return false;
}

void FairTurns::giveBack() noexcept {
    const support::MutexLock lock(mutex_);
    if (waiting_.empty()) {
        ++free_;
        return;
    }
    auto& threads = waiting_.front().threads;
    Thread& next = *threads.front();
    threads.pop_front();
    if (threads.empty()) {
        waiting_.pop_front();
    } else {
        waiting_.splice(waiting_.end(), waiting_, waiting_.begin());
    }
    // Under the lock: without it the thread could be gone before it is notified.
    next.isCalled = true;
    next.called.notify_one();
}

}  // namespace tarnvale::platform
