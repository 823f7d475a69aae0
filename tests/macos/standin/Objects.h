// SPDX-License-Identifier: MIT
//
// The stand-in's own ways to make objects of Foundation.

#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <string_view>

namespace tarnvale::test::standin {

NSError* _Nonnull makeError(NSInteger code, std::string_view text);

/// Another object of the same content, as one that came over a connection is; nil for nil.
NSString* _Nullable copyOf(NSString* _Nullable text);
NSData* _Nullable copyOf(NSData* _Nullable data);

std::string utf8Of(NSString* _Nullable text);

/// Throws the exception that Foundation raises for a wrong argument.
[[noreturn]] void raise(std::string_view reason);

}  // namespace tarnvale::test::standin
