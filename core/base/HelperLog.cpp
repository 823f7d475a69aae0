// SPDX-License-Identifier: MIT

#include "core/base/HelperLog.h"

#include <cerrno>
#include <chrono>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Mutex.h"
#include "support/SystemCalls.h"
#include "support/Timestamp.h"
#include "support/UniqueFd.h"

namespace tarnvale {
namespace {

using support::UniqueFd;

constexpr const char* logPath = "/var/log/tarnvale-adminhelper.log";
constexpr off_t maxLogSize = 0x80000;  // bytes
constexpr mode_t logMode = 0644;

/// Opens the log for writing at its end, and creates it if it is missing. Refuses a link, a FIFO or
/// a folder in its place.
UniqueFd openLog() {
    constexpr int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd log(::open(logPath, flags));
    if (!log && errno == ENOENT) {
        log.reset(::open(logPath, flags | O_CREAT | O_EXCL, logMode));
        if (log) {
            ::fchmod(log.get(), logMode);  // the umask may have taken bits away
        } else if (errno == EEXIST) {
            log.reset(::open(logPath, flags));  // another process created it first
        }
    }
    struct stat info {};
    if (log && (::fstat(log.get(), &info) != 0 || !S_ISREG(info.st_mode))) {
        log.reset();
    }
    return log;
}

void appendLine(std::string_view line) {
    const auto log = openLog();
    if (!log) {
        return;
    }
    if (::lseek(log.get(), 0, SEEK_END) > maxLogSize && ::ftruncate(log.get(), 0) != 0) {
        // Keep the line, even if the log then grows past its limit.
    }
    static_cast<void>(support::writeAll(log.get(), line));
}

}  // namespace

void helperLog(std::string_view message) {
    try {
        // Never destroyed, because other threads may log while the process ends.
        static auto& lock = *new support::Mutex;
        std::string line = support::iso8601(std::chrono::system_clock::now());
        line += ' ';
        line += message;
        line += '\n';
        const support::MutexLock guard(lock);
        appendLine(line);
    } catch (...) {
        // Without memory the line is lost, like any other that can't be written.
    }
}

}  // namespace tarnvale
