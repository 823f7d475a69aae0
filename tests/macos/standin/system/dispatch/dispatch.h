// SPDX-License-Identifier: MIT
//
// What the macOS layer calls of dispatch; tests/macos/standin/Dispatch.h answers.

#pragma once

#include <cstdint>

struct dispatch_queue_s;
struct dispatch_source_s;
struct dispatch_source_type_s;
using dispatch_queue_t = dispatch_queue_s*;
using dispatch_source_t = dispatch_source_s*;
using dispatch_source_type_t = const dispatch_source_type_s*;
using dispatch_time_t = std::uint64_t;
using dispatch_function_t = void (*)(void*);

enum { QOS_CLASS_DEFAULT = 0x15, QOS_CLASS_UTILITY = 0x11 };
inline constexpr dispatch_time_t DISPATCH_TIME_NOW = 0;
inline constexpr dispatch_source_type_t DISPATCH_SOURCE_TYPE_TIMER = nullptr;

extern "C" {

dispatch_time_t dispatch_time(dispatch_time_t when, std::int64_t delta);
dispatch_queue_t dispatch_get_global_queue(std::intptr_t identifier, std::uintptr_t flags);
void dispatch_after_f(
    dispatch_time_t when, dispatch_queue_t queue, void* context, dispatch_function_t work);
dispatch_source_t dispatch_source_create(
    dispatch_source_type_t type,
    std::uintptr_t handle,
    std::uintptr_t mask,
    dispatch_queue_t queue);
void dispatch_set_context(dispatch_source_t object, void* context);
void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler);
void dispatch_source_set_timer(
    dispatch_source_t source, dispatch_time_t start, std::uint64_t interval, std::uint64_t leeway);
void dispatch_resume(dispatch_source_t object);
[[noreturn]] void dispatch_main();
}

#if defined(__OBJC__)

#include <objc/NSObject.h>

@protocol OS_dispatch_semaphore<NSObject>
@end
typedef NSObject<OS_dispatch_semaphore>* dispatch_semaphore_t;

extern "C" {

dispatch_semaphore_t dispatch_semaphore_create(std::intptr_t value)
    __attribute__((ns_returns_retained));
std::intptr_t dispatch_semaphore_signal(dispatch_semaphore_t semaphore);
std::intptr_t dispatch_semaphore_wait(dispatch_semaphore_t semaphore, dispatch_time_t timeout);
}

#endif
