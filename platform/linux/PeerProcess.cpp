// SPDX-License-Identifier: MIT

#include "platform/linux/PeerProcess.h"

#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/SystemCalls.h"

// Newer than the C library's headers.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace tarnvale::platform {
namespace {

/// The C library's pidfd_open lacks C linkage in the version that Debian 12 has.
int openPidfd(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

/// The process that connected the socket; 0 for one of another PID namespace, -1 for none.
pid_t connectingPid(int socket) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    const int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size);
    return result == 0 ? credentials.pid : -1;
}

/// Sets errno like a system call.
int pidfdOfPeer(int socket, pid_t pid) {
    int pidfd = -1;
    socklen_t size = sizeof(pidfd);
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &size) == 0) {
        return pidfd;
    }
    const bool isOldKernel = errno == ENOPROTOOPT;  // before 6.5
    return isOldKernel && pid > 0 ? openPidfd(pid) : -1;
}

}  // namespace

std::optional<PeerProcess> PeerProcess::ofSocket(int socket) {
    const pid_t pid = connectingPid(socket);
    const int pidfd = pidfdOfPeer(socket, pid);
    // That this process has run short of something says nothing about the peer.
    if (pidfd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM)) {
        return std::nullopt;
    }
    return PeerProcess(pid, support::UniqueFd(pidfd));
}

std::optional<PeerProcess> PeerProcess::ofPid(pid_t pid) {
    support::UniqueFd pidfd(openPidfd(pid));
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
    return support::uninterrupted([&] { return ::poll(&end, 1, 0); }) == 0;
}

}  // namespace tarnvale::platform
