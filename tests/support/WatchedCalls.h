// SPDX-License-Identifier: MIT
//
// Stands between an operation and the kernel: something happens right before one of its system
// calls, or the call fails once, as when a signal interrupts it.

#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tarnvale::test {

/// A system call that is about to be made.
struct WatchedCall {
    int count;  ///< 1 for the first of that number
    std::array<std::uint64_t, 6> arguments;
};

/// The text at an address that a watched call passes. The kernel reads it: the thread sanitizer
/// does not know that the thread that wrote it stands still. Throws `std::system_error` where there
/// is none.
std::string textAt(std::uint64_t address);

/// Runs `operation` in a thread of its own. Before each of its system calls with that number
/// (`SYS_…`) calls `before`, whose result is the error with which the call fails, or 0 for a call
/// that goes on. Passes on what the operation throws. Throws `std::system_error` where a thread
/// can't be watched.
void watchCalls(
    long number,
    const std::function<int(const WatchedCall& call)>& before,
    const std::function<void()>& operation);

/// Runs the operation and has a signal seem to interrupt each of its calls with that number once:
/// the first, the third and so on fail with EINTR. Returns how many did.
int interruptCalls(long number, const std::function<void()>& operation);

/// Runs the operation; returns what it had open, when it closed it, that a program started
/// meanwhile would have inherited.
std::vector<std::string> inheritableFilesOf(const std::function<void()>& operation);

}  // namespace tarnvale::test
