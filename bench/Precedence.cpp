// SPDX-License-Identifier: MIT

#include "bench/Precedence.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/Programs.h"

namespace tarnvale::bench {
namespace {

bool setPolicy(int policy, int priority) {
    const sched_param parameters{.sched_priority = priority};
    return ::sched_setscheduler(0, policy, &parameters) == 0;
}

/// Keeps a processor awake until it is killed, or until the benchmark ends.
[[noreturn]] void keepAwake(int processor, pid_t benchmark) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != benchmark ||
        ::sched_setaffinity(0, sizeof one, &one) != 0 || !setPolicy(SCHED_IDLE, 0)) {
        ::_exit(1);
    }
    while (true) {
#ifdef __x86_64__
        __builtin_ia32_pause();  // leaves the core to its other hyperthread
#else
        asm volatile("");
#endif
    }
}

}  // namespace

Precedence::Precedence() {
    if (!setPolicy(SCHED_FIFO, 1)) {
        std::printf("without precedence over other processes: %s\n", std::strerror(errno));
        return;
    }
    const pid_t self = ::getpid();
    cpu_set_t processors;
    require(::sched_getaffinity(0, sizeof processors, &processors) == 0, "sched_getaffinity");
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &processors)) {
            const pid_t waker = ::fork();
            require(waker >= 0, "fork");
            if (waker == 0) {
                keepAwake(processor, self);
            }
            wakers_.push_back(waker);
        }
    }
}

Precedence::~Precedence() {
    setPolicy(SCHED_OTHER, 0);
    for (const pid_t waker : wakers_) {
        ::kill(waker, SIGKILL);
        ::waitpid(waker, nullptr, 0);
    }
}

}  // namespace tarnvale::bench
