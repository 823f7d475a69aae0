// SPDX-License-Identifier: MIT

#include "tests/demo/Transcript.h"

#include <iostream>
#include <sstream>

namespace tarnvale::test {

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): it is this transcript's line
void Transcript::say(const std::string& line) const {
    std::cout << line << std::endl;  // seen at once, also through a pipe
}

void Transcript::quote(const std::string& text, const std::string& prefix) const {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line.insert(0, "      " + prefix);
        say(line);
    }
}

void Transcript::check(bool holds, const std::string& what) {
    if (holds) {
        ++passed_;
    } else {
        ++failed_;
        say("  FAILED: " + what);
    }
}

}  // namespace tarnvale::test
