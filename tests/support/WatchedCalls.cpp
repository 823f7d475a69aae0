// SPDX-License-Identifier: MIT

#include "tests/support/WatchedCalls.h"

#include <atomic>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <linux/seccomp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/CallFilter.h"

namespace tarnvale::test {
namespace {

/// Answers the kernel until the watched thread has ended. What other threads and processes call
/// that the watched one has started is none of the operation's.
void answer(
    int listener, pid_t watched, const std::function<int(const WatchedCall& call)>& before) {
    int count = 0;
    answerCalls(listener, [&](const AskedCall& asked) {
        CallAnswer given;
        if (asked.thread == watched) {
            given.error = before({.count = ++count, .arguments = asked.arguments});
        }
        return given;
    });
}

}  // namespace

void watchCalls(
    long number,
    const std::function<int(const WatchedCall& call)>& before,
    const std::function<void()>& operation) {
    constexpr int unknown = -2;
    std::atomic<int> listener = unknown;
    pid_t thread = 0;
    std::exception_ptr thrown;
    std::thread watched([&] {
        thread = ::gettid();
        // The kernel asks there before each such call.
        listener = filterCall(number, SECCOMP_RET_USER_NOTIF, SECCOMP_FILTER_FLAG_NEW_LISTENER);
        listener.notify_one();
        if (listener < 0) {
            thrown = std::make_exception_ptr(
                std::system_error(errno, std::generic_category(), "seccomp"));
            return;
        }
        try {
            operation();
        } catch (...) {
            thrown = std::current_exception();
        }
    });
    listener.wait(unknown);
    const support::UniqueFd asks(listener);
    if (asks) {
        answer(asks.get(), thread, before);
    }
    watched.join();
    if (thrown) {
        std::rethrow_exception(thrown);
    }
}

int interruptCalls(long number, const std::function<void()>& operation) {
    int interrupted = 0;
    watchCalls(
        number,
        [&](const WatchedCall& call) {
            const bool fails = call.count % 2 == 1;
            interrupted += fails ? 1 : 0;
            return fails ? EINTR : 0;
        },
        operation);
    return interrupted;
}

std::vector<std::string> inheritableFilesOf(const std::function<void()>& operation) {
    std::vector<std::string> files;
    watchCalls(
        SYS_close,
        [&](const WatchedCall& call) {
            const auto fd = static_cast<int>(call.arguments[0]);
            const int flags = ::fcntl(fd, F_GETFD);
            if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
                std::error_code gone;
                files.push_back(
                    std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), gone));
            }
            return 0;
        },
        operation);
    return files;
}

}  // namespace tarnvale::test
