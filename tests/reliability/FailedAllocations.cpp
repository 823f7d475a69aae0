// SPDX-License-Identifier: MIT
//
// A library to preload: counts a program's allocations and lets those fail that the test has
// chosen. It uses no memory of its own.

#include "tests/reliability/FailedAllocations.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#define TARNVALE_EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

using tarnvale::test::FailedAllocations;

FailedAllocations* shared = nullptr;

/// The next allocator's function of that name, looked up once. Without a lock or a guard, which
/// could themselves allocate: threads that look together find the same.
template <typename Function>
class Next {
public:
    constexpr explicit Next(const char* name) noexcept : name_(name) {}

    Function get() {
        Function function = found_.load(std::memory_order_relaxed);
        if (function == nullptr) {
            function = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name_));
            found_.store(function, std::memory_order_relaxed);
        }
        return function;
    }

private:
    const char* name_;
    std::atomic<Function> found_ = nullptr;
};

constinit Next<void* (*)(std::size_t)> nextMalloc("malloc");
constinit Next<void* (*)(void*, std::size_t)> nextRealloc("realloc");
constinit Next<void* (*)(std::size_t, std::size_t)> nextCalloc("calloc");
constinit Next<void* (*)(std::size_t, std::size_t)> nextAligned("aligned_alloc");
constinit Next<int (*)(void**, std::size_t, std::size_t)> nextPosix("posix_memalign");

/// Before the program's own code, and in no other program.
__attribute__((constructor)) void begin() {
    const char* const path = std::getenv(tarnvale::test::failedAllocationsVariable);
    const int file = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return;
    }
    void* const mapped =
        ::mmap(nullptr, sizeof(FailedAllocations), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    if (mapped == MAP_FAILED) {
        return;
    }
    auto* const found = static_cast<FailedAllocations*>(mapped);
    if (std::strcmp(found->program.data(), program_invocation_short_name) == 0) {
        shared = found;
    } else {
        ::munmap(mapped, sizeof(FailedAllocations));
    }
}

std::int64_t monotonicTime() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// Counts an allocation. True when it is one of those that fail.
bool fails() {
    if (shared == nullptr) {
        return false;
    }
    const auto first = shared->first.load();
    if (first == 0) {
        return false;
    }
    const auto number = ++shared->made;
    if (number < first || number > shared->last) {
        return false;
    }
    const auto until = shared->until.load();
    if (until != 0 && monotonicTime() >= until) {
        return false;
    }
    if (number == first) {
        shared->wasMet = true;
    }
    errno = ENOMEM;
    return true;
}

}  // namespace

// The parameters have the C library's names.

TARNVALE_EXPORTED void* malloc(std::size_t size) {
    return fails() ? nullptr : nextMalloc.get()(size);
}

TARNVALE_EXPORTED void* realloc(void* ptr, std::size_t size) {
    return fails() ? nullptr : nextRealloc.get()(ptr, size);
}

TARNVALE_EXPORTED void* calloc(std::size_t nmemb, std::size_t size) {
    return fails() ? nullptr : nextCalloc.get()(nmemb, size);
}

TARNVALE_EXPORTED void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return fails() ? nullptr : nextAligned.get()(alignment, size);
}

TARNVALE_EXPORTED int posix_memalign(void** memptr, std::size_t alignment, std::size_t size) {
    return fails() ? ENOMEM : nextPosix.get()(memptr, alignment, size);
}
