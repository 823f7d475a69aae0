// SPDX-License-Identifier: MIT
//
// The executable is a bundle of its own and carries its information dictionary.

#include "platform/Bundle.h"

#include <CoreFoundation/CoreFoundation.h>

#include "platform/macos/CFText.h"

namespace tarnvale::platform {

std::optional<std::string> bundleShortVersion() {
    auto* const bundle = ::CFBundleGetMainBundle();
    const CFDictionaryRef information =
        bundle != nullptr ? ::CFBundleGetInfoDictionary(bundle) : nullptr;
    if (information == nullptr) {
        return std::nullopt;
    }
    return textIn(information, CFSTR("CFBundleShortVersionString"));
}

}  // namespace tarnvale::platform
