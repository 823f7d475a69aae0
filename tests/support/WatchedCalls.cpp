// SPDX-License-Identifier: MIT

#include "tests/support/WatchedCalls.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <linux/seccomp.h>
#include <sys/syscall.h>
#include <sys/uio.h>
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

std::string textAt(std::uint64_t address) {
    constexpr std::size_t pageSize = 4096;
    std::string text;
    for (auto end = std::string::npos; end == std::string::npos;) {
        const auto place = address + text.size();
        std::array<char, pageSize> bytes{};
        const iovec local{.iov_base = bytes.data(), .iov_len = pageSize - place % pageSize};
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel passes an address as a number
        const iovec remote{.iov_base = reinterpret_cast<void*>(place), .iov_len = local.iov_len};
        const auto size = ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0);
        if (size <= 0) {
            throw std::system_error(errno, std::generic_category(), "a watched call's text");
        }
        text.append(bytes.data(), static_cast<std::size_t>(size));
        end = text.find('\0');
        text.resize(std::min(end, text.size()));
    }
    return text;
}

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
