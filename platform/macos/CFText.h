// SPDX-License-Identifier: MIT
//
// Text on its way into Core Foundation and out of it. A text is passed with its length both ways,
// so that one with a NUL in it is never taken for the part before.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <CoreFoundation/CoreFoundation.h>

#include "platform/macos/CFRef.h"

namespace tarnvale::platform {

/// The text as a string object; nothing when it is not UTF-8 or no object could be made.
CFRef<CFStringRef> makeCFString(std::string_view text);

/// The whole string as UTF-8; nothing when there is no object, it is none of a string, or a part of
/// it has no UTF-8 form.
std::optional<std::string> textOf(CFTypeRef object);

/// What the dictionary has under the key, if that is a string.
std::optional<std::string> textIn(CFDictionaryRef dictionary, CFStringRef key);

}  // namespace tarnvale::platform
