// SPDX-License-Identifier: MIT

#include "tests/support/KillEverywhere.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarnvale::test {
namespace {

/// The signal of a stop at a system call, under PTRACE_O_TRACESYSGOOD.
constexpr int systemCallStop = SIGTRAP | 0x80;

/// What these change is lost with the process, so a death before one of them leaves what a death
/// before the next call leaves. A sanitizer makes hundreds of them.
constexpr std::array memoryCalls{SYS_brk, SYS_madvise, SYS_mmap, SYS_mprotect, SYS_munmap};

void require(bool done, const char* step) {
    if (!done) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

/// The child's next stop or its end, as waitpid reports it.
int nextStatus(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        require(errno == EINTR, "wait for the child");
    }
    return status;
}

/// Starts the operation in a child that this process traces.
pid_t start(const std::function<void()>& operation) {
    const pid_t child = ::fork();
    require(child >= 0, "fork");
    if (child == 0) {
        int status = 1;
        try {
            require(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0, "be traced");
            operation();
            status = 0;
        } catch (const std::exception& error) {
            std::cerr << "operation: " << error.what() << std::endl;
        }
        ::_exit(status);
    }
    return child;
}

/// The number of the system call that the stopped child is entering.
long enteredCall(pid_t child) {
    __ptrace_syscall_info info{};
    require(::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) >= 0, "get the call");
    return static_cast<long>(info.entry.nr);
}

/// Lets the child run and kills it on entering the first system call that is fatal. False when it
/// lived to its end.
bool killAt(pid_t child, const std::function<bool(long call)>& isFatal) {
    bool killing = false;
    bool inCall = false;
    for (;;) {
        const int status = nextStatus(child);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0 && killing) {
            return false;
        }
        if (!WIFSTOPPED(status)) {
            throw std::runtime_error(
                "the operation ended by itself, wait status " + std::to_string(status));
        }

        int signal = WSTOPSIG(status);
        if (signal == SIGSTOP && !killing) {
            const long options = PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD;
            require(::ptrace(PTRACE_SETOPTIONS, child, nullptr, options) == 0, "set options");
            killing = true;
            signal = 0;
        } else if (signal == systemCallStop) {
            inCall = !inCall;
            if (inCall && isFatal(enteredCall(child))) {
                require(::kill(child, SIGKILL) == 0, "kill");
                while (!WIFSIGNALED(nextStatus(child))) {
                }
                return true;
            }
            signal = 0;
        } else if (signal == SIGTRAP) {
            signal = 0;  // the child has become another program
        }
        require(
            ::ptrace(killing ? PTRACE_SYSCALL : PTRACE_CONT, child, nullptr, signal) == 0,
            "continue");
    }
}

}  // namespace

void beginKilling() {
    require(::raise(SIGSTOP) == 0, "stop");
}

int killAtEverySystemCall(
    const std::function<void()>& prepare,
    const std::function<void()>& operation,
    const std::function<void()>& check) {
    for (int call = 1;; ++call) {
        prepare();
        int entered = 0;
        const bool killed = killAt(start(operation), [&](long number) {
            return std::ranges::find(memoryCalls, number) == memoryCalls.end() && ++entered == call;
        });
        check();
        if (!killed) {
            return call - 1;
        }
    }
}

std::vector<long> systemCallsOf(const std::function<void()>& operation) {
    std::vector<long> calls;
    killAt(start(operation), [&](long call) {
        calls.push_back(call);
        return false;
    });
    return calls;
}

}  // namespace tarnvale::test
