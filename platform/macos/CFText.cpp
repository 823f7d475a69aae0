// SPDX-License-Identifier: MIT

#include "platform/macos/CFText.h"

#include <cstddef>

namespace tarnvale::platform {

CFRef<CFStringRef> makeCFString(std::string_view text) {
    return CFRef<CFStringRef>::adopt(::CFStringCreateWithBytes(
        nullptr,
        reinterpret_cast<const UInt8*>(text.data()),
        static_cast<CFIndex>(text.size()),
        kCFStringEncodingUTF8,
        0));
}

std::optional<std::string> textOf(CFTypeRef object) {
    if (object == nullptr || ::CFGetTypeID(object) != ::CFStringGetTypeID()) {
        return std::nullopt;
    }
    const auto* const string = static_cast<CFStringRef>(object);

    // Without a loss byte the conversion stops at what it can't convert, and says so in its count.
    const CFRange whole{.location = 0, .length = ::CFStringGetLength(string)};
    CFIndex size = 0;
    if (::CFStringGetBytes(string, whole, kCFStringEncodingUTF8, 0, 0, nullptr, 0, &size) !=
        whole.length) {
        return std::nullopt;
    }
    std::string text(static_cast<std::size_t>(size), '\0');
    auto* const bytes = reinterpret_cast<UInt8*>(text.data());
    if (::CFStringGetBytes(string, whole, kCFStringEncodingUTF8, 0, 0, bytes, size, &size) !=
        whole.length) {
        return std::nullopt;
    }
    return text;
}

std::optional<std::string> textIn(CFDictionaryRef dictionary, CFStringRef key) {
    return textOf(::CFDictionaryGetValue(dictionary, key));
}

}  // namespace tarnvale::platform
