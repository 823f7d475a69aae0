// SPDX-License-Identifier: MIT

#include "platform/macos/FoundationText.h"

#include <new>

#include "support/Text.h"

namespace tarnvale::platform {

NSString* toNSString(std::string_view text) {
    if (text.empty()) {
        return @"";
    }
    if (!support::isValidUtf8(text)) {
        return toNSString(support::repairedUtf8(text));
    }
    NSString* const made = [[NSString alloc] initWithBytes:text.data()
                                                    length:text.size()
                                                  encoding:NSUTF8StringEncoding];
    if (made == nil) {
        throw std::bad_alloc();
    }
    return made;
}

std::string toUtf8(NSString* text) {
    if (text == nil) {
        return {};
    }
    NSData* const data = [text dataUsingEncoding:NSUTF8StringEncoding allowLossyConversion:YES];
    if (data == nil) {
        throw std::bad_alloc();
    }
    return {static_cast<const char*>(data.bytes), data.length};
}

}  // namespace tarnvale::platform
