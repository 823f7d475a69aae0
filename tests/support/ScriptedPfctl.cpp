// SPDX-License-Identifier: MIT

#include "tests/support/ScriptedPfctl.h"

#include <filesystem>

#include "tests/support/HelperFiles.h"
#include "tests/support/Lines.h"

namespace tarnvale::test {
namespace {

constexpr const char* scriptPath = "/sbin/pfctl";
constexpr const char* callsPath = "/run/pfctl.calls";

}  // namespace

ScriptedPfctl::ScriptedPfctl() {
    install();
}

void ScriptedPfctl::answer(const std::string& pattern, const std::string& commands) {
    answers_.emplace_back(pattern, commands);
    install();
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): they are this script's calls
std::vector<std::string> ScriptedPfctl::calls() const {
    return exists(callsPath) ? linesOf(contentOf(callsPath)) : std::vector<std::string>();
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): as above
void ScriptedPfctl::forgetCalls() {
    std::filesystem::remove(callsPath);
}

void ScriptedPfctl::install() const {
    const std::string calls = callsPath;
    std::string script =
        "#!/bin/sh\necho \"$*\" >>" + calls + "\nn=$(wc -l <" + calls + ")\ncase \"$*\" in\n";
    for (const auto& [pattern, commands] : answers_) {
        // A blank in a pattern would end it; quoted, it is a blank.
        std::string quoted;
        for (const char c : pattern) {
            if (c == ' ') {
                quoted += '\\';
            }
            quoted += c;
        }
        script += quoted;
        script += ")\n";
        script += commands;
        script += "\n;;\n";
    }
    script += "esac\nexit 0\n";

    // A new file each time: a running script keeps its own.
    std::filesystem::remove(scriptPath);
    put(scriptPath, script);
    std::filesystem::permissions(scriptPath, std::filesystem::perms(0755));
}

}  // namespace tarnvale::test
