// SPDX-License-Identifier: MIT

#include "platform/Bundle.h"

namespace tarnvale::platform {

std::optional<std::string> bundleShortVersion() {
    const std::string version(TARNVALE_VERSION);  // NOLINT(readability-redundant-string-init)
    return version.empty() ? std::nullopt : std::optional(version);
}

}  // namespace tarnvale::platform
