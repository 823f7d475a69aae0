// SPDX-License-Identifier: MIT

#include "tests/support/EmptyHeap.h"

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();

thread_local std::size_t successesLeft = unlimited;

}  // namespace

// The thread sanitizer has operators of its own, which no others can replace.
#if !defined(TARNVALE_THREAD_SANITIZER)

/// Whether one more allocation may succeed.
static bool takeOne() {
    if (successesLeft == 0) {
        return false;
    }
    successesLeft -= successesLeft == unlimited ? 0 : 1;
    return true;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return takeOne() ? std::malloc(size) : nullptr;
}

void* operator new(std::size_t size) {
    void* const memory = ::operator new(size, std::nothrow);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

#endif

namespace tarnvale::test {

EmptyHeap::EmptyHeap(std::size_t successes) {
    successesLeft = successes;
}

EmptyHeap::~EmptyHeap() {
    successesLeft = unlimited;
}

}  // namespace tarnvale::test
