// SPDX-License-Identifier: MIT
//
// sweep KIND [WORD…]: takes a measurement of that kind (Kinds.h) and prints it. It works in a
// private root. Status 1 if something was violated, or couldn't be measured.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "tests/reliability/Kinds.h"
#include "tests/support/PrivateRoot.h"

namespace {

namespace test = tarnvale::test;

constexpr std::array kinds = {
    &test::memoryKind,
    &test::killKind,
    &test::errnoKind,
    &test::powerKind,
    &test::soakKind,
    &test::stormKind};
constexpr int usageStatus = 2;

int complainOfUsage() {
    for (const auto* kind : kinds) {
        std::fprintf(stderr, "usage: reliability %s %s\n", kind->name, kind->arguments);
    }
    return usageStatus;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const auto* const kind = std::ranges::find_if(
        kinds, [&](const test::Kind* one) { return !words.empty() && words[0] == one->name; });
    if (kind == kinds.end()) {
        return complainOfUsage();
    }
    try {
        if (!test::isInPrivateRoot()) {
            const std::string program = std::filesystem::read_symlink("/proc/self/exe");
            if (const auto refusal = test::enterPrivateRoot()) {
                throw std::runtime_error(*refusal);
            }
            // Started again, it is a program of that root through and through.
            ::execv(program.c_str(), argv);
            throw std::system_error(errno, std::generic_category(), program);
        }
        if (const auto lack = test::lackOf(test::Ability::interfaces)) {
            throw std::runtime_error(*lack);
        }
        ::umask(S_IWGRP | S_IWOTH);  // clients of several users read what it lays out
        return (*kind)->run({words.begin() + 1, words.end()});
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "sweep: %s\n", error.what());
        return complainOfUsage();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sweep: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
