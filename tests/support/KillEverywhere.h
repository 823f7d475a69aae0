// SPDX-License-Identifier: MIT
//
// Kills an operation before each of its system calls in turn, those aside that change only its own
// memory: no file system can tell more instants apart. Lists those calls, too, where their order
// matters.

#pragma once

#include <functional>
#include <vector>

namespace tarnvale::test {

/// The operation calls it where killing is to begin. What comes before, such as the start of a
/// program, runs undisturbed.
void beginKilling();

/// Runs `operation` in a child that dies by SIGKILL on entering its first system call after
/// `beginKilling` (calls that map, free or protect memory don't count), then in one that dies on
/// entering its second, and so on until a child lives to its end. Before each child `prepare`
/// restores the state; after each, the last one included, `check` looks at what it left. The
/// operation may replace itself by another program. Returns how many children were killed. Throws
/// `std::runtime_error` when a child neither returns from the operation nor exits with status 0.
int killAtEverySystemCall(
    const std::function<void()>& prepare,
    const std::function<void()>& operation,
    const std::function<void()>& check);

/// Runs `operation` in a child and returns the numbers (`SYS_…`) of the system calls that it makes
/// after `beginKilling`, in order. Throws `std::runtime_error` as `killAtEverySystemCall` does.
std::vector<long> systemCallsOf(const std::function<void()>& operation);

}  // namespace tarnvale::test
