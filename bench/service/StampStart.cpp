// SPDX-License-Identifier: MIT
//
// stamp_start FILE PROGRAM: becomes the program, having written to the file its process ID and the
// time, in microseconds of the steady clock.

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: stamp_start FILE PROGRAM\n", stderr);
        return EXIT_FAILURE;
    }
    std::FILE* const file = std::fopen(argv[1], "we");
    if (file == nullptr) {
        std::perror(argv[1]);
        return EXIT_FAILURE;
    }
    const std::chrono::duration<double, std::micro> now =
        std::chrono::steady_clock::now().time_since_epoch();
    std::fprintf(file, "%d %.3f\n", static_cast<int>(::getpid()), now.count());
    std::fclose(file);
    ::execv(argv[2], argv + 2);
    std::perror(argv[2]);
    return EXIT_FAILURE;
}
