// SPDX-License-Identifier: MIT
//
// A private copy of the machine for one test process: its own mount, network and PID namespaces,
// and a copy-on-write view of the whole file system as its root. Every path is the true one;
// nothing that happens there can be seen outside, and it is gone when the process ends.

#pragma once

#include <optional>
#include <string>

namespace tarnvale::test {

/// Moves this process, which must have one thread, into a private root for good. Its rest runs in
/// a child; the calling process waits for that child and exits with its status. Without root a
/// user namespace is made first, in which the caller's user is root. Returns nothing, or, where the
/// kernel refuses, the sentence that says so; the process is then as it was. An interrupt ends both
/// and everything that was started in the private root, unless the caller ignores it.
std::optional<std::string> enterPrivateRoot();

/// True when this process is in a private root.
bool isInPrivateRoot();

/// True when this process is root over several users, not only over the one who made its user
/// namespace.
bool isRealRoot();

}  // namespace tarnvale::test
