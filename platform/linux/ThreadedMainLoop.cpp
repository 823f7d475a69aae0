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
        schedule(SteadyClock::now() + period, {std::move(work), period});
    }

    void runAfter(std::chrono::milliseconds delay, std::function<void()> work) override {
        schedule(SteadyClock::now() + delay, {std::move(work), 0ms});
    }

    [[noreturn]] void exitProcess(int status) override { ::_exit(status); }

    [[noreturn]] void run() override {
        while (true) {
            auto [time, task] = takeNextDue();
            try {
                task.work();
            } catch (...) {
                // Out of memory: it is left out this time.
            }
            if (task.period > 0ms) {
                const auto again = time + task.period;
                schedule(again, std::move(task));
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

    void schedule(SteadyClock::time_point time, Task task) {
        {
            const support::MutexLock lock(mutex_);
            due_.emplace(time, std::move(task));
        }
        changed_.notify_one();
    }

    /// Waits until work is due and takes it out of the schedule.
    std::pair<SteadyClock::time_point, Task> takeNextDue() {
        const support::MutexLock lock(mutex_);
        while (due_.empty() || SteadyClock::now() < due_.begin()->first) {
            if (due_.empty()) {
                changed_.wait(mutex_);
            } else {
                const auto time = due_.begin()->first;
                changed_.wait_until(mutex_, time);
            }
        }
        auto next = due_.extract(due_.begin());
        return {next.key(), std::move(next.mapped())};
    }

    support::Mutex mutex_;
    std::condition_variable_any changed_;
    std::multimap<SteadyClock::time_point, Task> due_ GUARDED_BY(mutex_);
};

}  // namespace

std::unique_ptr<MainLoop> makeMainLoop() {
    return std::make_unique<ThreadedMainLoop>();
}

}  // namespace tarnvale::platform
