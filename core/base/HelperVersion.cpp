// SPDX-License-Identifier: MIT

#include "core/base/HelperVersion.h"

#include "platform/Bundle.h"

namespace tarnvale {

const std::string& helperVersionString() {
    static const auto& version = *new std::string(platform::bundleShortVersion().value_or("7"));
    return version;
}

}  // namespace tarnvale
