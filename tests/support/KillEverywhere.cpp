// SPDX-License-Identifier: MIT

#include "tests/support/KillEverywhere.h"

#include <cerrno>
#include <csignal>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarnvale::test {
namespace {

/// What a stop at a system call is reported as, by PTRACE_O_TRACESYSGOOD.
constexpr int systemCallStop = SIGTRAP | 0x80;

void require(bool done, const char* step) {
    if (!done) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

/// The child's next stop or its end, as waitpid tells it.
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

/// Lets the child run up to the given system call, counted from 1, and kills it there. False when
/// it ended before.
bool killAtCall(pid_t child, int fatalCall) {
    bool killing = false;
    bool inCall = false;
    int calls = 0;
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
            if (inCall && ++calls == fatalCall) {
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
        const bool killed = killAtCall(start(operation), call);
        check();
        if (!killed) {
            return call - 1;
        }
    }
}

}  // namespace tarnvale::test
