// SPDX-License-Identifier: MIT
//
// A /sbin/pfctl that does what a test tells it and remembers how it was called. It is a shell
// script in the private root, so that the helper runs it as it runs the system's own.

#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tarnvale::test {

/// How the helper calls pfctl, the words joined by blanks.
namespace pfctlCall {
inline constexpr const char* load =
    "-a com.apple/900.tarnvale.firewall -f /Library/Application Support/Tarnvale/firewall.pf.conf";
inline constexpr const char* flush = "-a com.apple/900.tarnvale.firewall -F rules";
inline constexpr const char* flushLegacy = "-a com.tarnvale.firewall -F rules";
inline constexpr const char* enable = "-E";
}  // namespace pfctlCall

class ScriptedPfctl {
public:
    /// The pattern of a load of any file into the helper's anchor.
    static constexpr const char* load = "-a com.apple/900.tarnvale.firewall -f *";

    /// Succeeds at everything and prints nothing.
    ScriptedPfctl();

    /// Runs these shell commands when the words of a call, joined by blanks, match the shell
    /// pattern. The first pattern that matches counts. `$n` is the number of the call among all,
    /// from 1.
    void answer(const std::string& pattern, const std::string& commands);

    /// Every call so far, its words joined by blanks.
    std::vector<std::string> calls() const;

    void forgetCalls();

private:
    void install() const;

    std::vector<std::pair<std::string, std::string>> answers_;
};

}  // namespace tarnvale::test
