// SPDX-License-Identifier: MIT

#include "tests/support/EmptyHeap.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local bool isEmpty = false;

}  // namespace

// The thread sanitizer has operators of its own, which no others can replace.
#if !defined(TARNVALE_THREAD_SANITIZER)

void* operator new(std::size_t size) {
    void* const memory = isEmpty ? nullptr : std::malloc(size);
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

EmptyHeap::EmptyHeap() {
    isEmpty = true;
}

EmptyHeap::~EmptyHeap() {
    isEmpty = false;
}

}  // namespace tarnvale::test
