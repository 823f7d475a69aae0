// SPDX-License-Identifier: MIT
//
// Has the kernel treat system calls of a thread, and of what it starts, in another way.

#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include <sys/types.h>

namespace tarnvale::test {

/// Installs a filter that gives this action (SECCOMP_RET_…) for the call of this number (`SYS_…`)
/// and allows all others. The flags are those of seccomp(2). Returns what that returns: with
/// SECCOMP_FILTER_FLAG_NEW_LISTENER a descriptor, or -1 with `errno`.
int filterCall(long number, std::uint32_t action, unsigned flags = 0);

/// The same for all calls but those of these numbers, at most 200.
int filterCallsBut(std::span<const long> numbers, std::uint32_t action, unsigned flags = 0);

/// A system call about which the kernel asks before it is made.
struct AskedCall {
    pid_t thread;
    long number;
    std::array<std::uint64_t, 6> arguments;
};

/// What becomes of it.
struct CallAnswer {
    int error = 0;                         ///< with which it fails
    std::optional<std::int64_t> result{};  ///< with which it seems to be made
};

/// Answers what the kernel asks at the descriptor of a filter of SECCOMP_RET_USER_NOTIF, until all
/// whom the filter concerns have ended. A call with an empty answer goes on.
void answerCalls(int listener, const std::function<CallAnswer(const AskedCall& call)>& answer);

}  // namespace tarnvale::test
