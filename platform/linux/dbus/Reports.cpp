// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/Reports.h"

#include <utility>

#include "platform/linux/dbus/WireText.h"

namespace tarnvale::platform {

Reports::Request::Request(Reports& reports) : reports_(reports) {
    const support::MutexLock lock(reports_.mutex_);
    ++reports_.requests_;
    first_ = reports_.begun_ + 1;
}

Reports::Request::~Request() {
    Report unwanted;
    const support::MutexLock lock(reports_.mutex_);
    if (--reports_.requests_ == 0) {
        unwanted = std::move(reports_.last_);
    }
}

Reports::Report Reports::Request::get(TarnvaleAdminHelperProtocol& maker) {
    return reports_.get(first_, maker);
}

Reports::Report Reports::get(std::uint64_t first, TarnvaleAdminHelperProtocol& maker) {
    if (auto made = lastOrTurn(first)) {
        return made;
    }
    Report made;
    try {
        const auto report = maker.firewallReport();
        made = std::make_shared<ResultReply>(ResultReply{
            .result = wire::sendable(report.result), .error = wire::sendable(report.error)});
    } catch (...) {
        finish(nullptr);
        throw;
    }
    finish(made);
    return made;
}

/// The last report, once it is one of those that will do. Nothing when it is up to the caller to
/// make the next.
Reports::Report Reports::lastOrTurn(std::uint64_t first) {
    const support::MutexLock lock(mutex_);
    while (numberOfLast_ < first && isBeingMade_) {
        changed_.wait(mutex_);
    }
    if (numberOfLast_ >= first) {
        return last_;
    }
    isBeingMade_ = true;
    ++begun_;
    return nullptr;
}

/// Nothing in its place when it couldn't be made: whoever waits for it makes it again.
void Reports::finish(const Report& made) {
    const support::MutexLock lock(mutex_);
    isBeingMade_ = false;
    if (made) {
        last_ = made;
        numberOfLast_ = begun_;
    }
    changed_.notify_all();
}

}  // namespace tarnvale::platform
