// SPDX-License-Identifier: MIT
//
// A private copy of the machine for one test process. Every path is the true one; nothing that
// happens there can be seen outside, and it is gone when the process ends. How much of a machine
// it is depends on what the kernel allows: its ground, and what that ground lacks.

#pragma once

#include <optional>
#include <string>

namespace tarnvale::test {

/// What a private root is made of.
enum class Ground {
    /// Root with CAP_SYS_ADMIN: mount, network and PID namespaces of its own and a copy-on-write
    /// view of the whole file system.
    namespaces,
    /// Any user, where user namespaces are allowed: the same, except that the caller's user is root
    /// there, and other users are there only if the caller has subordinate ones (/etc/subuid).
    userNamespace,
    /// Root in a plain container (CAP_SYS_CHROOT): a small root of copies. Processes and network
    /// are the container's, and there is no right to change the network.
    copies,
};

/// What a test may need and not every ground has.
enum class Ability {
    mounts,          ///< file systems of its own: a small disk, a read-only one
    processes,       ///< a PID namespace of its own, in which every process may be killed
    interfaces,      ///< network interfaces of its own
    owners,          ///< files that belong to several users
    usersProcesses,  ///< processes of several users, and all of root's rights over them
    largeBuffers,    ///< socket buffers beyond the machine's limit, which large rulesets need
    devices,         ///< device files of its own
    trees,           ///< whole installed packages, such as systemd or the tools of other languages
};

/// Moves this process, which must have one thread, into a private root for good. Its rest runs in a
/// child; the calling process waits for that child and exits with its status. Returns nothing, or,
/// where the kernel refuses, the sentence that says so and what would help; the process is then as
/// it was. An interrupt ends both and everything that was started in the private root, unless the
/// caller ignores it.
std::optional<std::string> enterPrivateRoot();

/// Whether this process is in a private root.
bool isInPrivateRoot();

/// The ground of the private root that this process is in.
Ground ground();

/// Nothing when the ground of this process has the ability; else the sentence that says what is
/// missing and what would give it.
std::optional<std::string> lackOf(Ability ability);

/// True when this process is root over several users, not only over the one who made its user
/// namespace.
bool isRealRoot();

}  // namespace tarnvale::test
