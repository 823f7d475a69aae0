// SPDX-License-Identifier: MIT

#include "tests/reliability/CallWatch.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <exception>
#include <fstream>
#include <system_error>

#include <linux/seccomp.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/reliability/CallErrors.h"

namespace tarnvale::test {
namespace {

using support::MutexLock;

constexpr auto unlistedCalls = std::to_array<long>({
    // its memory
    SYS_brk,
    SYS_madvise,
    SYS_mmap,
    SYS_mprotect,
    SYS_mremap,
    SYS_munmap,
    // its threads and their sleep
    SYS_clock_nanosleep,
    SYS_exit,
    SYS_futex,
    SYS_membarrier,
    SYS_nanosleep,
    SYS_restart_syscall,
    SYS_rseq,
    SYS_sched_yield,
    SYS_set_robust_list,
    SYS_set_tid_address,
    // its signals
    SYS_rt_sigaction,
    SYS_rt_sigprocmask,
    SYS_rt_sigreturn,
    SYS_sigaltstack,
    // what it knows of itself
    SYS_clock_gettime,
    SYS_getegid,
    SYS_geteuid,
    SYS_getgid,
    SYS_getpid,
    SYS_getppid,
    SYS_gettid,
    SYS_getuid,
    SYS_prlimit64,
    SYS_sched_getaffinity,
    SYS_sysinfo,
    SYS_uname,
#ifdef SYS_arch_prctl  // of one architecture
    SYS_arch_prctl,
#endif
});

/// To a process that is about to die: its call isn't made any more.
constexpr CallAnswer ofTheKilled = {.error = EINTR};

}  // namespace

CallWatch::~CallWatch() {
    awaitEnd();
}

void CallWatch::awaitEnd() {
    if (answering_.joinable()) {
        answering_.join();
    }
    const MutexLock lock(mutex_);
    // Whoever has lost its parent has become our child.
    for (const pid_t process : killed_) {
        if (process != program_) {
            ::waitpid(process, nullptr, 0);
        }
    }
    killed_.clear();
}

std::unique_ptr<Program> CallWatch::start(const std::vector<std::string>& commandLine) {
    awaitEnd();
    {
        const MutexLock lock(mutex_);
        program_ = -1;
        isItself_ = false;
        countAfresh();
    }
    constexpr int unknown = -2;
    std::atomic<int> listener = unknown;
    std::unique_ptr<Program> program;
    std::exception_ptr thrown;
    // A program has the filter of the thread that starts it.
    std::thread starting([&] {
        listener =
            filterCallsBut(unlistedCalls, SECCOMP_RET_USER_NOTIF, SECCOMP_FILTER_FLAG_NEW_LISTENER);
        listener.notify_one();
        try {
            if (listener < 0) {
                throw std::system_error(errno, std::generic_category(), "seccomp");
            }
            program = std::make_unique<Program>(commandLine);
        } catch (...) {
            thrown = std::current_exception();
        }
    });
    listener.wait(unknown);
    if (listener >= 0) {
        answering_ = std::thread([this, fd = listener.load()] {
            const support::UniqueFd asks(fd);
            answerCalls(asks.get(), [this](const AskedCall& call) { return answer(call); });
        });
    }
    starting.join();
    if (thrown) {
        std::rethrow_exception(thrown);
    }
    return program;
}

CallAnswer CallWatch::answer(const AskedCall& call) {
    const MutexLock lock(mutex_);
    if (isItself_ && !isCounting_) {
        return {};
    }
    const pid_t process = processOf(call.thread);
    if (process == ::getpid()) {
        return {};
    }
    if (!isItself_) {
        program_ = process;
        isItself_ = call.number == SYS_execve;
        return {};
    }
    if (process != program_) {
        order_.try_emplace(process, static_cast<int>(order_.size()) + 1);
    }
    const bool allDie = deed_ && wasDone_ && deed_->kind == Deed::Kind::killAll;
    if (allDie || std::ranges::find(killed_, process) != killed_.end()) {
        return kill(process);
    }
    const int place = process == program_ ? 0 : order_.at(process);
    const WatchedPoint point{
        .process = place, .number = call.number, .occurrence = ++made_[{place, call.number}]};
    if (!deed_) {
        listed_.push_back({.point = point, .call = call});
        return {};
    }
    const bool isAwaited = !wasDone_ && point == awaited_;
    return isAwaited && fits_({.point = point, .call = call}) ? doAt(call, process) : CallAnswer{};
}

CallAnswer CallWatch::doAt(const AskedCall& call, pid_t process) {
    wasDone_ = true;
    switch (deed_->kind) {
        case Deed::Kind::fail:
            return {.error = deed_->error};
        case Deed::Kind::shorten: {
            const auto answer = shortened(call, process);
            wasDone_ = answer.error != 0 || answer.result;
            return answer;
        }
        case Deed::Kind::killAll:
            kill(program_);
            for (const auto& [started, place] : order_) {
                kill(started);
            }
            return ofTheKilled;
        case Deed::Kind::killProcess:
            break;
    }
    return kill(process);
}

CallAnswer CallWatch::kill(pid_t process) {
    ::kill(process, SIGKILL);
    killed_.push_back(process);
    return ofTheKilled;
}

void CallWatch::countAfresh() {
    processes_.clear();
    order_.clear();
    made_.clear();
    listed_.clear();
    killed_.clear();
}

pid_t CallWatch::processOf(pid_t thread) {
    const auto [known, isNew] = processes_.try_emplace(thread, thread);
    if (isNew) {
        std::ifstream status("/proc/" + std::to_string(thread) + "/status");
        for (std::string word; status >> word;) {
            if (word == "Tgid:") {
                status >> known->second;
                break;
            }
        }
    }
    return known->second;
}

void CallWatch::beginList() {
    const MutexLock lock(mutex_);
    countAfresh();
    deed_.reset();
    isCounting_ = true;
}

std::vector<ListedCall> CallWatch::list() {
    const MutexLock lock(mutex_);
    isCounting_ = false;
    return std::exchange(listed_, {});
}

void CallWatch::await(const WatchedPoint& point, const Deed& deed, const CallCondition& fits) {
    const MutexLock lock(mutex_);
    countAfresh();
    awaited_ = point;
    deed_ = deed;
    fits_ = fits;
    wasDone_ = false;
    isCounting_ = true;
}

void CallWatch::pause() {
    const MutexLock lock(mutex_);
    isCounting_ = false;
}

bool CallWatch::end() {
    const MutexLock lock(mutex_);
    isCounting_ = false;
    deed_.reset();
    return std::exchange(wasDone_, false);
}

}  // namespace tarnvale::test
