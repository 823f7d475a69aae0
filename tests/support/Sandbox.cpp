// SPDX-License-Identifier: MIT
//
// sandbox COMMAND [ARGUMENT…]: runs a command in a private root (PrivateRoot.h) and ends with its
// status. What the command does to files, interfaces and packet filters is gone when it ends.

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

#include "tests/support/PrivateRoot.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: sandbox COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    if (const auto refusal = tarnvale::test::enterPrivateRoot()) {
        std::fprintf(stderr, "sandbox: %s\n", refusal->c_str());
        return 77;
    }
    ::execvp(argv[1], argv + 1);
    std::fprintf(stderr, "sandbox: %s: %s\n", argv[1], std::strerror(errno));
    return 127;
}
