// SPDX-License-Identifier: MIT
//
// Text on its way into Core Foundation and out of it. It is passed with its length both ways, so
// that a NUL in it never cuts it off.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <CoreFoundation/CoreFoundation.h>

#include "platform/macos/CFRef.h"

namespace tarnvale::platform {

/// The text as a string object; nothing when it is not UTF-8 or memory is short.
CFRef<CFStringRef> makeCFString(std::string_view text);

/// The whole string as UTF-8; nothing when there is no object, it is not a string, or a part of it
/// has no UTF-8 form.
std::optional<std::string> textOf(CFTypeRef object);

/// The string that the dictionary has under the key; nothing when it has something else or nothing.
std::optional<std::string> textIn(CFDictionaryRef dictionary, CFStringRef key);

}  // namespace tarnvale::platform
