// SPDX-License-Identifier: MIT
//
// Reports may have megabytes and be wanted by many at once: one is made at a time, and it serves
// all who wait for one.

#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"
#include "support/Mutex.h"

namespace tarnvale::platform {

/// Safe from any thread.
class Reports {
public:
    using Report = std::shared_ptr<const ResultReply>;

    /// A request for a report. While there are any, the last report is kept.
    class Request {
    public:
        explicit Request(Reports& reports);
        Request(const Request&) = delete;
        Request& operator=(const Request&) = delete;
        ~Request();

        /// One that was begun after the request, so that it shows all that was done before. D-Bus
        /// can carry it.
        Report get(TarnvaleAdminHelperProtocol& maker);

    private:
        Reports& reports_;
        std::uint64_t first_;  ///< of the reports that will do
    };

private:
    Report get(std::uint64_t first, TarnvaleAdminHelperProtocol& maker) EXCLUDES(mutex_);
    Report lastOrTurn(std::uint64_t first) EXCLUDES(mutex_);
    void finish(const Report& made) EXCLUDES(mutex_);

    support::Mutex mutex_;
    std::condition_variable_any changed_;
    int requests_ GUARDED_BY(mutex_) = 0;
    bool isBeingMade_ GUARDED_BY(mutex_) = false;
    std::uint64_t begun_ GUARDED_BY(mutex_) = 0;
    std::uint64_t numberOfLast_ GUARDED_BY(mutex_) = 0;
    Report last_ GUARDED_BY(mutex_);
};

}  // namespace tarnvale::platform
