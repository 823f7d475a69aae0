// SPDX-License-Identifier: MIT
//
// The main loop on macOS: timers of dispatch, which also gets the main thread.

#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include <dispatch/dispatch.h>
#include <unistd.h>

#include "platform/MainLoop.h"

namespace tarnvale::platform {
namespace {

using Work = std::function<void()>;

std::int64_t nanoseconds(std::chrono::milliseconds duration) {
    return std::chrono::nanoseconds(duration).count();
}

/// The time at which `duration` has passed from now on, not counting while the machine sleeps.
dispatch_time_t after(std::chrono::milliseconds duration) {
    return ::dispatch_time(DISPATCH_TIME_NOW, nanoseconds(duration));
}

void perform(const Work& work) noexcept {
    try {
        work();
    } catch (...) {
        // Memory is short: the work is left out this time.
    }
}

class DispatchMainLoop final : public MainLoop {
public:
    Clock::time_point now() override { return Clock::now(); }

    void repeat(std::chrono::milliseconds period, Work work) override {
        auto kept = std::make_unique<Work>(std::move(work));
        dispatch_source_t timer = ::dispatch_source_create(
            DISPATCH_SOURCE_TYPE_TIMER, 0, 0, ::dispatch_get_global_queue(QOS_CLASS_UTILITY, 0));
        if (timer == nullptr) {
            throw std::bad_alloc();
        }
        ::dispatch_set_context(timer, kept.release());
        ::dispatch_source_set_event_handler_f(
            timer, [](void* context) { perform(*static_cast<const Work*>(context)); });
        ::dispatch_source_set_timer(
            timer, after(period), static_cast<std::uint64_t>(nanoseconds(period)), 0);
        ::dispatch_resume(timer);
        // The timer and its work live as long as the process, so nothing releases them.
    }

    void runAfter(std::chrono::milliseconds delay, Work work) override {
        ::dispatch_after_f(
            after(delay),
            ::dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0),
            std::make_unique<Work>(std::move(work)).release(),
            [](void* context) { perform(*std::unique_ptr<Work>(static_cast<Work*>(context))); });
    }

    [[noreturn]] void exitProcess(int status) override { ::_exit(status); }

    [[noreturn]] void run() override { ::dispatch_main(); }
};

}  // namespace

std::unique_ptr<MainLoop> makeMainLoop() {
    return std::make_unique<DispatchMainLoop>();
}

}  // namespace tarnvale::platform
