// SPDX-License-Identifier: MIT

#include "tests/macos/standin/Dispatch.h"

#include <cstdint>

using std::chrono::nanoseconds;
using tarnvale::test::Dispatch;

/// A global queue.
struct dispatch_queue_s {
    std::intptr_t qualityOfService;
};

namespace tarnvale::test {

Dispatch& Dispatch::current() {
    return all().empty() ? renewed() : all().back();
}

Dispatch& Dispatch::renewed() {
    return all().emplace_back();
}

std::deque<Dispatch>& Dispatch::all() {
    // A timer's work lives as long as the process, so whatever holds it does, too.
    static auto& all = *new std::deque<Dispatch>;
    return all;
}

}  // namespace tarnvale::test

// A time is the nanoseconds from now on.
dispatch_time_t dispatch_time(dispatch_time_t when, std::int64_t delta) {
    return when + static_cast<std::uint64_t>(delta);
}

dispatch_queue_t dispatch_get_global_queue(std::intptr_t identifier, std::uintptr_t /*flags*/) {
    static std::deque<dispatch_queue_s> queues;
    return &queues.emplace_back(dispatch_queue_s{identifier});
}

void dispatch_after_f(
    dispatch_time_t when, dispatch_queue_t queue, void* context, dispatch_function_t work) {
    Dispatch::current().delayed.push_back(
        {.delay = nanoseconds(when),
         .queue = queue->qualityOfService,
         .context = context,
         .work = work});
}

dispatch_source_t dispatch_source_create(
    dispatch_source_type_t /*type*/,
    std::uintptr_t /*handle*/,
    std::uintptr_t mask,
    dispatch_queue_t queue) {
    auto& dispatch = Dispatch::current();
    if (dispatch.hasNoSources) {
        return nullptr;
    }
    auto& timer = dispatch.timers.emplace_back();
    timer.queue = queue->qualityOfService;
    timer.flags = mask;
    return &timer;
}

void dispatch_set_context(dispatch_source_t object, void* context) {
    object->context = context;
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) {
    source->handler = handler;
}

void dispatch_source_set_timer(
    dispatch_source_t source, dispatch_time_t start, std::uint64_t interval, std::uint64_t leeway) {
    source->start = nanoseconds(start);
    source->interval = nanoseconds(interval);
    source->leeway = nanoseconds(leeway);
}

void dispatch_resume(dispatch_source_t object) {
    object->isResumed = true;
}

void dispatch_main() {
    throw tarnvale::test::MainThreadGiven();
}
