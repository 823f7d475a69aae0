// SPDX-License-Identifier: MIT
//
// Has the kernel refuse a system call, as a file system or a machine may that a test can't have.

#pragma once

namespace tarnvale::test {

/// From now on the call fails in this thread, and in those that it starts, with the error. Throws
/// `std::system_error` where a thread may have no filter.
void refuseCall(long number, int error);

/// The same with EPERM for every call that changes a file's mode.
void refuseModeChanges();

}  // namespace tarnvale::test
