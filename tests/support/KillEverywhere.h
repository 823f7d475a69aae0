// SPDX-License-Identifier: MIT
//
// An operation that is killed at every instant that a file system can tell from another: before
// each of its system calls in turn. And the list of those calls, where their order matters.

#pragma once

#include <functional>
#include <vector>

namespace tarnvale::test {

/// Called by the operation where killing is to begin. What comes before, such as the start of a
/// program, runs undisturbed.
void beginKilling();

/// Runs `operation` in a child that dies by SIGKILL on entering its first system call after
/// `beginKilling`, then in one that dies on entering its second, and so on until a child lives to
/// its end. Before each child `prepare` restores the state; after each, the last one included,
/// `check` looks at what it left. The operation may replace itself by another program. Returns how
/// many children were killed. Throws `std::runtime_error` when a child ends in any other way than
/// by returning from the operation or by exit status 0.
int killAtEverySystemCall(
    const std::function<void()>& prepare,
    const std::function<void()>& operation,
    const std::function<void()>& check);

/// Runs `operation` in a child and returns the numbers (`SYS_…`) of the system calls that it makes
/// after `beginKilling`, in order. Throws `std::runtime_error` as `killAtEverySystemCall` does.
std::vector<long> systemCallsOf(const std::function<void()>& operation);

}  // namespace tarnvale::test
