// SPDX-License-Identifier: MIT

#include "helperctl/MacTools.h"

#include <algorithm>
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
    const auto lines = support::split(disabledServices, '\n');
    return std::ranges::any_of(lines, [&](std::string_view line) {
        // Older systems say "true" in place of "disabled".
        return has(line, name) && (line.ends_with("=> disabled") || line.ends_with("=> true"));
    });
}

}  // namespace tarnvale::helperctl
