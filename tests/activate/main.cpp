// SPDX-License-Identifier: MIT
//
// activate PROGRAM [ARGUMENT…]: plays systemd's part where there is none. Listens on the helper's
// socket and starts the program with it whenever somebody connects and none runs.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/dbus/ListeningSocket.h"
#include "support/UniqueFd.h"

namespace {

using tarnvale::support::UniqueFd;

/// The first descriptor that systemd passes.
constexpr int passedDescriptor = 3;

void require(bool success, const char* step) {
    if (!success) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

/// In the new process: becomes the program, with the socket as descriptor 3.
[[noreturn]] void become(char** program, int listening) {
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    if (::dup2(listening, passedDescriptor) == passedDescriptor) {
        ::execv(program[0], program);
    }
    std::perror(program[0]);
    ::_exit(EXIT_FAILURE);
}

[[noreturn]] void serve(char** program) {
    const UniqueFd made = tarnvale::platform::openListeningSocket(0);
    // Never descriptor 3 itself: dup2 would leave it alone, and the exec would close it.
    const UniqueFd listening(::fcntl(made.get(), F_DUPFD_CLOEXEC, passedDescriptor + 1));
    require(static_cast<bool>(listening), "fcntl");
    while (true) {
        pollfd waited{.fd = listening.get(), .events = POLLIN, .revents = 0};
        require(::poll(&waited, 1, -1) > 0, "poll");
        const pid_t child = ::fork();
        require(child >= 0, "fork");
        if (child == 0) {
            become(program, listening.get());
        }
        require(::waitpid(child, nullptr, 0) == child, "waitpid");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: activate PROGRAM [ARGUMENT...]\n", stderr);
        return 2;
    }
    try {
        serve(argv + 1);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "activate: %s\n", error.what());
    }
    return EXIT_FAILURE;
}
