// SPDX-License-Identifier: MIT
//
// A heap that can be empty, but not under the thread sanitizer. A program that uses it has
// allocation functions of its own.

#pragma once

#include <cstddef>

namespace tarnvale::test {

/// While one lives, `new` fails in its thread, after it has succeeded so many times.
class EmptyHeap {
public:
    explicit EmptyHeap(std::size_t successes = 0);
    EmptyHeap(const EmptyHeap&) = delete;
    EmptyHeap& operator=(const EmptyHeap&) = delete;
    ~EmptyHeap();
};

}  // namespace tarnvale::test
