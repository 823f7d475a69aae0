// SPDX-License-Identifier: MIT
//
// The main loop on Linux: the main thread sleeps until the next piece of work is due and runs it.

#include <condition_variable>
#include <map>
#include <utility>

#include <unistd.h>

#include "platform/MainLoop.h"
#include "support/Mutex.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;

class ThreadedMainLoop final : public MainLoop {
public:
    Clock::time_point now() override { return Clock::now(); }

    void repeat(std::chrono::milliseconds period, std::function<void()> work) override {
        add(SteadyClock::now() + period, {std::move(work), period});
    }

    void runAfter(std::chrono::milliseconds delay, std::function<void()> work) override {
        add(SteadyClock::now() + delay, {std::move(work), 0ms});
    }

    [[noreturn]] void exitProcess(int status) override { ::_exit(status); }

    [[noreturn]] void run() override {
        while (true) {
            auto next = takeNextDue();
            try {
                next.mapped().work();
            } catch (...) {
                // Out of memory: it is left out this time.
            }
            if (next.mapped().period > 0ms) {
                next.key() += next.mapped().period;
                schedule(std::move(next));
            }
        }
    }

private:
    // Like launchd's timers, this clock doesn't count the time that the machine sleeps.
    using SteadyClock = std::chrono::steady_clock;

    struct Task {
        std::function<void()> work;
        std::chrono::milliseconds period;  ///< zero for work that runs once
    };

    using Schedule = std::multimap<SteadyClock::time_point, Task>;

    void add(SteadyClock::time_point time, Task task) {
        Schedule one;
        one.emplace(time, std::move(task));
        schedule(one.extract(one.begin()));
    }

    /// Needs no memory, so work that repeats goes on whenever there is some again.
    void schedule(Schedule::node_type task) {
        {
            const support::MutexLock lock(mutex_);
            due_.insert(std::move(task));
        }
        changed_.notify_one();
    }

    /// Waits until work is due and takes it out of the schedule.
    Schedule::node_type takeNextDue() {
        const support::MutexLock lock(mutex_);
        while (due_.empty() || SteadyClock::now() < due_.begin()->first) {
            if (due_.empty()) {
                changed_.wait(mutex_);
            } else {
                const auto time = due_.begin()->first;
                changed_.wait_until(mutex_, time);
            }
        }
        return due_.extract(due_.begin());
    }

    support::Mutex mutex_;
    std::condition_variable_any changed_;
    Schedule due_ GUARDED_BY(mutex_);
};

}  // namespace

std::unique_ptr<MainLoop> makeMainLoop() {
    return std::make_unique<ThreadedMainLoop>();
}

}  // namespace tarnvale::platform
