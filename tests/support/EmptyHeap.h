// SPDX-License-Identifier: MIT
//
// A heap that can be empty, but not under the thread sanitizer. A program that uses it has
// allocation functions of its own.

#pragma once

namespace tarnvale::test {

/// While one lives, `new` fails in its thread.
class EmptyHeap {
public:
    EmptyHeap();
    EmptyHeap(const EmptyHeap&) = delete;
    EmptyHeap& operator=(const EmptyHeap&) = delete;
    ~EmptyHeap();
};

}  // namespace tarnvale::test
