// SPDX-License-Identifier: MIT

#include "platform/Bundle.h"

namespace tarnvale::platform {

std::optional<std::string> bundleShortVersion() {
    constexpr std::string_view version = TARNVALE_VERSION;
    return version.empty() ? std::nullopt : std::optional<std::string>(version);
}

}  // namespace tarnvale::platform
