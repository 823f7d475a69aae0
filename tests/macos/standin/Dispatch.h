// SPDX-License-Identifier: MIT
//
// Dispatch for the C++ parts of platform/macos: it keeps the work that it gets, and runs it when
// the test says so.

#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

#include <dispatch/dispatch.h>

/// A timer source as the program set it up.
struct dispatch_source_s {
    std::intptr_t queue = 0;  ///< the quality-of-service class
    std::uintptr_t flags = 0;
    void* context = nullptr;
    dispatch_function_t handler = nullptr;
    std::chrono::nanoseconds start{};
    std::chrono::nanoseconds interval{};
    std::chrono::nanoseconds leeway{};
    bool isResumed = false;

    void fire() const { handler(context); }
};

namespace tarnvale::test {

/// Thrown where a Mac's dispatch would keep the main thread forever.
struct MainThreadGiven {};

struct Dispatch {
    struct DelayedWork {
        std::chrono::nanoseconds delay;
        std::intptr_t queue;
        void* context;
        dispatch_function_t work;

        void run() const { work(context); }
    };

    std::deque<dispatch_source_s> timers;
    std::deque<DelayedWork> delayed;
    bool hasNoSources = false;

    /// Where the calls go.
    static Dispatch& current();

    /// A new one for the calls to go to.
    static Dispatch& renewed();

private:
    static std::deque<Dispatch>& all();
};

}  // namespace tarnvale::test
