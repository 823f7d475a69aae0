// SPDX-License-Identifier: MIT
//
// sandbox [COMMAND [ARGUMENT…]]: runs a command in a private root (PrivateRoot.h), in the folder
// where it was called, and ends with its status. What the command does to files, interfaces and
// packet filters is gone when it ends. Without a command it opens a shell whose prompt says where
// one is. TARNVALE_SANDBOX is set inside, so that commands can refuse to run anywhere else.
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

constexpr const char* shell = "bash";

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

/// Becomes the command, or the shell when there is none. Returns only where that fails.
void become(char** command) {
    ::setenv("TARNVALE_SANDBOX", "yes", 1);
    if (command[0] != nullptr) {
        ::execvp(command[0], command);
        return;
    }
    // The user's own settings would take the prompt away.
    ::setenv("PS1", "[sandbox] \\w\\$ ", 1);
    ::execlp(shell, shell, "--norc", nullptr);
}

}  // namespace

int main(int argc, char** argv) {
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
        become(argv + 1);
    }
    std::fprintf(stderr, "sandbox: %s: %s\n", argc > 1 ? argv[1] : shell, std::strerror(errno));
    return 127;
}
