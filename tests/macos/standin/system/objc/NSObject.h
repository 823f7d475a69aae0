// SPDX-License-Identifier: MIT
//
// The class of all objects, as far as the macOS layer and its tests use it.

#pragma once

#include <objc/objc.h>

@class Protocol;

@protocol NSObject
- (BOOL)isKindOfClass:(Class)type;
- (BOOL)respondsToSelector:(SEL)selector;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject> {
    Class isa;
}
+ (instancetype)new;
+ (instancetype)alloc;
+ (Class)class;
- (instancetype)init;
@end

@interface Protocol : NSObject
@end
