// SPDX-License-Identifier: MIT
//
// The main loop on Linux: the main thread sleeps until the next piece of work is due and runs it.

#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>

#include <unistd.h>

#include "platform/MainLoop.h"

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
        std::unique_lock lock(mutex_);
        while (true) {
            if (due_.empty()) {
                changed_.wait(lock);
                continue;
            }
            const auto next = due_.begin();
            const auto time = next->first;
            if (SteadyClock::now() < time) {
                changed_.wait_until(lock, time);
                continue;
            }
            Task task = std::move(next->second);
            due_.erase(next);
            lock.unlock();
            try {
                task.work();
            } catch (...) {
                // For want of memory it is left out this time.
            }
            lock.lock();
            if (task.period > 0ms) {
                due_.emplace(time + task.period, std::move(task));
            }
        }
    }

private:
    // Like launchd's timers it does not count the time that the machine sleeps.
    using SteadyClock = std::chrono::steady_clock;

    struct Task {
        std::function<void()> work;
        std::chrono::milliseconds period;  ///< zero for work that runs once
    };

    void schedule(SteadyClock::time_point time, Task task) {
        {
            const std::lock_guard lock(mutex_);
            due_.emplace(time, std::move(task));
        }
        changed_.notify_one();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<SteadyClock::time_point, Task> due_;
};

}  // namespace

std::unique_ptr<MainLoop> makeMainLoop() {
    return std::make_unique<ThreadedMainLoop>();
}

}  // namespace tarnvale::platform
