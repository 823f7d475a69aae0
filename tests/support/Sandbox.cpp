// SPDX-License-Identifier: MIT
//
// sandbox COMMAND [ARGUMENT…]: runs a command in a private root (PrivateRoot.h), in the folder
// where it was called, and ends with its status. What the command does to files, interfaces and
// packet filters is gone when it ends.
//
// What an interrupt does is the command's decision, so this program ignores interrupts. The command
// is not the first process of its namespace, because the kernel spares that one.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/PrivateRoot.h"

namespace {

/// Reaps all processes that become this one's until the command ends; its exit status, or 128 and
/// the number of the signal that ended it.
int statusOf(pid_t command) {
    int status = 0;
    while (true) {
        const pid_t ended = ::wait(&status);
        if (ended == command) {
            return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
        if (ended < 0 && errno != EINTR) {
            return EXIT_FAILURE;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: sandbox COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    std::error_code unknown;
    const auto folder = std::filesystem::current_path(unknown);
    const auto interruption = std::signal(SIGINT, SIG_IGN);
    if (const auto refusal = tarnvale::test::enterPrivateRoot()) {
        std::fprintf(stderr, "sandbox: %s\n", refusal->c_str());
        return 77;
    }
    // One that the private root doesn't show, such as in /tmp, leaves the command at its top.
    std::filesystem::current_path(folder, unknown);
    const pid_t command = ::fork();
    if (command > 0) {
        return statusOf(command);
    }
    if (command == 0) {
        std::signal(SIGINT, interruption);
        ::execvp(argv[1], argv + 1);
    }
    std::fprintf(stderr, "sandbox: %s: %s\n", argv[1], std::strerror(errno));
    return 127;
}
