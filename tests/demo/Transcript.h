// SPDX-License-Identifier: MIT
//
// What the demo shows, line by line, and how many of its checks held.

#pragma once

#include <string>

namespace tarnvale::test {

class Transcript {
public:
    /// Shows a line.
    void say(const std::string& line = {}) const;

    /// Shows the lines of a text below a line of the demo's own, each after the prefix.
    void quote(const std::string& text, const std::string& prefix = {}) const;

    /// Counts a check; one that doesn't hold is shown.
    void check(bool holds, const std::string& what);

    int passed() const { return passed_; }
    int failed() const { return failed_; }

private:
    int passed_ = 0;
    int failed_ = 0;
};

}  // namespace tarnvale::test
