// SPDX-License-Identifier: MIT
//
// Text on its way into Foundation and out of it, passed with its length: a NUL never cuts it off.

#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <string_view>

// Without it nothing would ever be released.
#if !__has_feature(objc_arc)
#error "Automatic reference counting is off: compile with -fobjc-arc."
#endif

namespace tarnvale::platform {

/// The text as an NSString, with invalid UTF-8 repaired. Throws `std::bad_alloc`.
NSString* _Nonnull toNSString(std::string_view text);

/// The text in UTF-8, with "?" for half a surrogate pair; empty for nil. Throws `std::bad_alloc`.
std::string toUtf8(NSString* _Nullable text);

}  // namespace tarnvale::platform
