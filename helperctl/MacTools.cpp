// SPDX-License-Identifier: MIT

#include "helperctl/MacTools.h"

#include <string>

#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

bool has(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

}  // namespace

std::optional<bool> isBlocked(
    std::string_view globalState, std::string_view blockAll, std::string_view appBlocked) {
    if (has(globalState, "(State = 0)")) {
        return false;  // off, whatever is set for when it is on
    }
    if (!has(globalState, "(State = ")) {
        return std::nullopt;
    }
    if (has(globalState, "(State = 2)") || has(blockAll, "set to enabled") ||
        has(appBlocked, "is blocked")) {
        return true;
    }
    // It also calls programs permitted that it has never heard of.
    if (has(appBlocked, "is permitted") || has(appBlocked, "is not part of the firewall")) {
        return false;
    }
    return std::nullopt;
}

bool isTurnedOff(std::string_view disabledServices, std::string_view service) {
    const auto name = "\"" + std::string(service) + "\"";
    for (const auto line : support::split(disabledServices, '\n')) {
        // Up to macOS 12, it is "true" in place of "disabled".
        if (has(line, name) && (line.ends_with("=> disabled") || line.ends_with("=> true"))) {
            return true;
        }
    }
    return false;
}

}  // namespace tarnvale::helperctl
