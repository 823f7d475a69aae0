// SPDX-License-Identifier: MIT

#include "platform/Bundle.h"

namespace tarnvale::platform {

std::optional<std::string> bundleShortVersion() {
    // NOLINTNEXTLINE(readability-redundant-string-init): empty unless the build was given one
    const std::string version(TARNVALE_VERSION);
    return version.empty() ? std::nullopt : std::optional(version);
}

}  // namespace tarnvale::platform
