// SPDX-License-Identifier: MIT
//
// The process at the other end of a socket. Its ID alone does not identify it: once the process has
// ended, another can get the same ID. A pidfd stays with its process, so what is read under
// /proc/<pid> counts only if the pidfd says afterwards that the process is still alive.

#pragma once

#include <optional>
#include <string>
#include <utility>

#include <sys/types.h>

#include "platform/CodeSigning.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {

/// Holds the pidfd of a peer.
class PeerProcess {
public:
    /// The process that connected the stream socket. Its handle is `Peer::gone` when it can't be
    /// named any more. Nothing when this process has no descriptor left for it.
    static std::optional<PeerProcess> ofSocket(int socket);

    /// The process that has the ID now.
    static std::optional<PeerProcess> ofPid(pid_t pid);

    /// Valid as long as this object is.
    Peer peer() const noexcept {
        return {.pid = pid_, .handle = pidfd_ ? pidfd_.get() : Peer::gone};
    }

private:
    PeerProcess(pid_t pid, support::UniqueFd pidfd) noexcept
        : pid_(pid), pidfd_(std::move(pidfd)) {}

    pid_t pid_;
    support::UniqueFd pidfd_;  ///< none of a process that is gone
};

/// Where the system shows which executable the process runs.
std::string executableLink(const Peer& peer);

/// Whether the peer is still alive. False when its handle does not say.
bool lives(const Peer& peer);

}  // namespace tarnvale::platform
