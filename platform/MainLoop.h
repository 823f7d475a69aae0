// SPDX-License-Identifier: MIT
//
// The process's clock, and the work that it does without a request.

#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace tarnvale::platform {

class MainLoop {
public:
    using Clock = std::chrono::system_clock;

    virtual ~MainLoop() = default;

    /// The wall clock.
    virtual Clock::time_point now() = 0;

    /// Runs `work` at the end of each period, once the loop runs, on a thread that serves no
    /// request, and never twice at a time. Called once, before `run`.
    virtual void repeat(std::chrono::milliseconds period, std::function<void()> work) = 0;

    /// Runs `work` once, after the delay, on such a thread.
    virtual void runAfter(std::chrono::milliseconds delay, std::function<void()> work) = 0;

    /// Ends the process at once with this status, from any thread. Nothing is torn down, because
    /// other threads may be at work.
    [[noreturn]] virtual void exitProcess(int status) = 0;

    /// Hands the main thread over for good.
    [[noreturn]] virtual void run() = 0;
};

/// The loop of this process. Defined once in platform/macos and once in platform/linux.
std::unique_ptr<MainLoop> makeMainLoop();

}  // namespace tarnvale::platform
