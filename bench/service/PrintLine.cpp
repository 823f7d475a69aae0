// SPDX-License-Identifier: MIT
//
// A C++ program that prints a line: the least that `--version` can cost.

#include <cstdio>
#include <string>

int main() {
    const std::string line = "7";
    std::puts(line.c_str());
}
