// SPDX-License-Identifier: MIT
//
// The C++ program that prints a line: what `--version` can't do without.

#include <cstdio>
#include <string>

int main() {
    const std::string line = "7";
    std::puts(line.c_str());
}
