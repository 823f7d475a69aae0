// SPDX-License-Identifier: MIT
//
// A main loop whose clock the test turns.

#pragma once

#include <chrono>
#include <functional>
#include <new>
#include <utility>
#include <vector>

#include "platform/MainLoop.h"

namespace tarnvale::test {

class FakeMainLoop final : public platform::MainLoop {
public:
    /// Thrown where the real loop would end the process, or never return.
    struct Exit {
        int status;
    };
    struct Running {};

    struct Work {
        std::chrono::milliseconds time;  ///< the period, or the delay
        std::function<void()> work;
    };

    Clock::time_point time{std::chrono::hours(1)};
    std::vector<Work> repeated;
    std::vector<Work> delayed;
    bool isOutOfMemory = false;

    Clock::time_point now() override { return time; }

    void repeat(std::chrono::milliseconds period, std::function<void()> work) override {
        repeated.push_back({period, std::move(work)});
    }

    void runAfter(std::chrono::milliseconds delay, std::function<void()> work) override {
        if (isOutOfMemory) {
            throw std::bad_alloc();
        }
        delayed.push_back({delay, std::move(work)});
    }

    [[noreturn]] void exitProcess(int status) override { throw Exit{status}; }

    [[noreturn]] void run() override { throw Running{}; }
};

}  // namespace tarnvale::test
