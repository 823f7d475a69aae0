// SPDX-License-Identifier: MIT

#include "platform/linux/PeriodicInterrupt.h"

#include <atomic>
#include <csignal>

#include <unistd.h>

namespace tarnvale::platform {
namespace {

constexpr int signalNumber = SIGALRM;
constexpr timespec period{.tv_sec = 0, .tv_nsec = 5'000'000};

/// Without a handler the signal would end the process.
std::atomic<bool> isHandled = false;

}  // namespace

void PeriodicInterrupt::handleSignal() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    isHandled = ::sigaction(signalNumber, &action, nullptr) == 0;
}

PeriodicInterrupt::PeriodicInterrupt() {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = signalNumber;
    event._sigev_un._tid = ::gettid();
    if (isHandled && ::timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0) {
        isSet_ = true;
        const itimerspec times{.it_interval = period, .it_value = period};
        ::timer_settime(timer_, 0, &times, nullptr);
    }
}

PeriodicInterrupt::~PeriodicInterrupt() {
    if (isSet_) {
        ::timer_delete(timer_);
    }
}

}  // namespace tarnvale::platform
