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
constexpr off_t sizeLimit = 0x80000;  // bytes
constexpr mode_t logMode = 0644;

/// The log, for writing at its end; made when it is missing. Whatever else is in its place, a link,
/// a FIFO or a folder, is not written to.
UniqueFd openLog() {
    constexpr int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd log(::open(logPath, flags));
    if (!log && errno == ENOENT) {
        log.reset(::open(logPath, flags | O_CREAT | O_EXCL, logMode));
        if (log) {
            ::fchmod(log.get(), logMode);  // whatever the umask took
        } else if (errno == EEXIST) {
            log.reset(::open(logPath, flags));  // another process was first
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
    if (::lseek(log.get(), 0, SEEK_END) > sizeLimit && ::ftruncate(log.get(), 0) != 0) {
        // A log that can't be emptied goes on growing; the line matters more.
    }
    static_cast<void>(support::writeAll(log.get(), line));
}

}  // namespace

void helperLog(std::string_view message) {
    try {
        // Never destroyed: other threads may log while the process ends.
        static auto& lock = *new support::Mutex;
        std::string line = support::iso8601(std::chrono::system_clock::now());
        line += ' ';
        line += message;
        line += '\n';
        const support::MutexLock guard(lock);
        appendLine(line);
    } catch (...) {
        // A line for which there is no memory is lost, as any other that can't be written.
    }
}

}  // namespace tarnvale
