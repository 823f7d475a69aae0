// SPDX-License-Identifier: MIT
//
// What may become of a system call that nothing is wrong with.

#pragma once

#include <string>

#include <sys/types.h>

#include "tests/support/CallFilter.h"

namespace tarnvale::test {

/// Whether the kernel may refuse the call with the error. No call that a signal doesn't interrupt
/// fails with EINTR, for instance.
bool mayFail(const AskedCall& call, int error);

/// Whether the call may be made for fewer bytes than asked for.
bool mayBeShort(const AskedCall& call);

/// Makes the process's call for it, for half of its bytes. The answer is empty where that is
/// nothing that can happen: to a datagram, or to a single byte.
CallAnswer shortened(const AskedCall& call, pid_t process);

/// Such as "openat".
std::string nameOfCall(long number);

}  // namespace tarnvale::test
