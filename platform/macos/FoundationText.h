// SPDX-License-Identifier: MIT
//
// Text and bytes between this program and Foundation: by length, never up to a NUL.

#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <string_view>

// Without it nothing would ever be released.
#if !__has_feature(objc_arc)
#error "Automatic reference counting is off: compile with -fobjc-arc."
#endif

namespace tarnvale::platform {

/// The text as Foundation's, what is not UTF-8 in it repaired. Throws `std::bad_alloc`.
NSString* _Nonnull toNSString(std::string_view text);

/// The text in UTF-8, "?" in place of half a surrogate pair; empty for nil. Throws
/// `std::bad_alloc`.
std::string toUtf8(NSString* _Nullable text);

}  // namespace tarnvale::platform
