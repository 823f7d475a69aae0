// SPDX-License-Identifier: MIT
//
// For tests: a file that somebody changes all the time.

#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <utility>

#include <sys/stat.h>

namespace tarnvale::test {

/// Changes the file's mode again and again while it exists, and has begun when it is made.
class Disturbance {
public:
    explicit Disturbance(std::string path) : path_(std::move(path)) {
        while (changes_ < 3) {
            std::this_thread::yield();
        }
    }
    Disturbance(const Disturbance&) = delete;
    Disturbance& operator=(const Disturbance&) = delete;
    ~Disturbance() {
        isOver_ = true;
        thread_.join();
    }

private:
    std::string path_;
    std::atomic<bool> isOver_ = false;
    std::atomic<int> changes_ = 0;
    std::thread thread_{[this] {
        while (!isOver_) {
            ::chmod(path_.c_str(), ++changes_ % 2 == 0 ? 0755 : 0700);
        }
    }};
};

}  // namespace tarnvale::test
