// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/PeerProcess.h"

#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

// Newer than the C library's headers.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace tarnvale::platform {

std::optional<PeerProcess> PeerProcess::ofSocket(int socket) {
    struct ucred credentials {};
    socklen_t size = sizeof(credentials);
    // A process of another PID namespace has the ID 0 here.
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
        credentials.pid <= 0) {
        return std::nullopt;
    }

    int handle = -1;
    size = sizeof(handle);
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &handle, &size) == 0) {
        return PeerProcess(credentials.pid, support::UniqueFd(handle));
    }
    return errno == ENOPROTOOPT ? ofPid(credentials.pid) : std::nullopt;
}

std::optional<PeerProcess> PeerProcess::ofPid(pid_t pid) {
    // The C library's pidfd_open lacks C linkage in the version that Debian 12 has.
    support::UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd) {
        return std::nullopt;
    }
    return PeerProcess(pid, std::move(pidfd));
}

std::string executableLink(const Peer& peer) {
    return "/proc/" + std::to_string(peer.pid) + "/exe";
}

bool lives(const Peer& peer) {
    if (peer.handle < 0) {
        return false;
    }
    struct pollfd end {
        .fd = peer.handle, .events = POLLIN, .revents = 0
    };
    int ready = 0;
    do {
        ready = ::poll(&end, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready == 0;
}

}  // namespace tarnvale::platform
