// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/ListeningSocket.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/Transport.h"
#include "support/Decimal.h"

// Newer than the C library's headers.
#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83
#endif

namespace tarnvale::platform {
namespace {

using support::UniqueFd;

/// The first descriptor that systemd passes (sd_listen_fds(3)).
constexpr int firstPassedDescriptor = 3;

[[noreturn]] void fail(const std::string& what, int errorNumber) {
    throw TransportError(what + ": " + std::generic_category().message(errorNumber) + ".");
}

std::optional<int> numberIn(const char* variable) {
    constexpr unsigned max = std::numeric_limits<int>::max();
    const char* const text = std::getenv(variable);
    const auto value = text != nullptr ? support::parseNumber<unsigned>(text, max) : std::nullopt;
    return value ? std::optional(static_cast<int>(*value)) : std::nullopt;
}

int socketOption(int fd, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    return ::getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

UniqueFd adoptPassedSocket(int descriptor) {
    if (socketOption(descriptor, SO_DOMAIN) != AF_UNIX ||
        socketOption(descriptor, SO_TYPE) != SOCK_STREAM ||
        socketOption(descriptor, SO_ACCEPTCONN) != 1) {
        throw TransportError("The descriptor that was passed is no listening Unix stream socket.");
    }
    UniqueFd fd(descriptor);
    if (::fcntl(fd.get(), F_SETFD, FD_CLOEXEC) != 0 ||
        ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) | O_NONBLOCK) != 0) {
        fail("Could not set up the socket that was passed", errno);
    }
    return fd;
}

UniqueFd newSocket(int type) {
    UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        fail("Could not make a socket", errno);
    }
    return fd;
}

/// Makes sure that the path is free, or a socket that nobody listens on.
void requireStaleOrAbsent() {
    const std::string path = listeningSocketPath;
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) {
            return;
        }
        fail("Could not look at " + path, errno);
    }
    if (!S_ISSOCK(info.st_mode)) {
        throw TransportError(path + " is in the way: it isn't a socket.");
    }
    // To a socket of another type the kernel says whether the file has a living socket behind it. A
    // connection would have that helper check us, reject us and log it.
    const auto address = addressOf(path);
    const auto probe = newSocket(SOCK_DGRAM);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (::connect(probe.get(), generic, sizeof address) == 0 || errno == EPROTOTYPE) {
        throw TransportError("Another helper listens on " + path + ".");
    }
    if (errno != ECONNREFUSED && errno != ENOENT) {
        fail("Could not find out who listens on " + path, errno);
    }
}

UniqueFd makeSocket() {
    requireStaleOrAbsent();

    // The socket is bound under a temporary name and renamed when it is ready. So whatever is at
    // the true path always has its mode, and somebody listens.
    const std::string path = listeningSocketPath;
    const std::string temporary = path + "." + std::to_string(::getpid());
    const auto address = addressOf(temporary);
    auto fd = newSocket(SOCK_STREAM);
    ::unlink(temporary.c_str());
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("Could not bind " + path, errno);
    }
    if (::chmod(temporary.c_str(), 0666) != 0 || ::listen(fd.get(), SOMAXCONN) != 0 ||
        ::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        fail("Could not offer " + path, error);
    }
    return fd;
}

}  // namespace

int takePassedSockets() {
    const auto pid = numberIn("LISTEN_PID");
    const auto count = numberIn("LISTEN_FDS");
    for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
        ::unsetenv(name);
    }
    return pid == ::getpid() ? count.value_or(0) : 0;
}

bool hasWaitingClient(int passedSockets) {
    pollfd passed{.fd = firstPassedDescriptor, .events = POLLIN, .revents = 0};
    return passedSockets == 1 && ::poll(&passed, 1, 0) == 1 && (passed.revents & POLLIN) != 0;
}

UniqueFd openListeningSocket(int passedSockets) {
    if (passedSockets > 1) {
        throw TransportError(
            "One listening socket was expected, " + std::to_string(passedSockets) +
            " were passed.");
    }
    auto fd = passedSockets == 0 ? makeSocket() : adoptPassedSocket(firstPassedDescriptor);
    // No request carries descriptors, and closing a peer's can take as long as the peer likes.
    // Since Linux 6.16 the kernel can refuse them; before, each is closed where it turns up.
    const int no = 0;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_PASSRIGHTS, &no, sizeof no);
    return fd;
}

}  // namespace tarnvale::platform
