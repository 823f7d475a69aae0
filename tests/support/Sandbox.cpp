// SPDX-License-Identifier: MIT
//
// sandbox COMMAND [ARGUMENT…]: runs a command in a private root (PrivateRoot.h), in the folder
// where it was called, and ends with its status. What the command does to files, interfaces and
// packet filters is gone when it ends.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <unistd.h>

#include "tests/support/PrivateRoot.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: sandbox COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    std::error_code unknown;
    const auto folder = std::filesystem::current_path(unknown);
    if (const auto refusal = tarnvale::test::enterPrivateRoot()) {
        std::fprintf(stderr, "sandbox: %s\n", refusal->c_str());
        return 77;
    }
    // One that the private root doesn't show, such as in /tmp, leaves the command at its top.
    std::filesystem::current_path(folder, unknown);
    ::execvp(argv[1], argv + 1);
    std::fprintf(stderr, "sandbox: %s: %s\n", argv[1], std::strerror(errno));
    return 127;
}
