// SPDX-License-Identifier: MIT
//
// Reads what macOS's own tools print, for `doctor`.

#pragma once

#include <optional>
#include <string_view>

namespace tarnvale::helperctl {

/// Whether the application firewall keeps a program from being reached, by what socketfilterfw
/// prints for --getglobalstate, --getblockall, and --getappblocked with the program. Nothing if
/// they aren't in the known form.
std::optional<bool> isBlocked(
    std::string_view globalState, std::string_view blockAll, std::string_view appBlocked);

/// Whether `launchctl print-disabled system` shows the service as turned off.
bool isTurnedOff(std::string_view disabledServices, std::string_view service);

}  // namespace tarnvale::helperctl
