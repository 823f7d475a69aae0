// SPDX-License-Identifier: MIT
//
// The few classes of Foundation that the macOS layer uses, and dispatch's semaphores.

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>

#include "support/Text.h"
#include "tests/macos/standin/Heap.h"
#include "tests/macos/standin/Objects.h"
#include "tests/macos/standin/XPC.h"
#include "tests/macos/standin/objc/Runtime.h"

extern "C" id class_createInstance(Class type, std::size_t extra)
    __attribute__((ns_returns_retained));

namespace objc = tarnvale::test::objc;

namespace {

const objc::Class* known(Class type) {
    return (__bridge const objc::Class*)type;
}

const objc::Class* classOf(id object) {
    return objc::classOf((__bridge const objc::Object*)object);
}

}  // namespace

@implementation NSObject

+ (instancetype)alloc {
    return class_createInstance(self, 0);
}

+ (instancetype)new {
    return [[self alloc] init];
}

+ (Class)class {
    return self;
}

- (instancetype)init {
    return self;
}

- (BOOL)isKindOfClass:(Class)type {
    return classOf(self)->isKindOf(known(type));
}

- (BOOL)respondsToSelector:(SEL)selector {
    return objc::findMethod(
               classOf(self), reinterpret_cast<const objc::Selector*>(selector)->name) != nullptr;
}

@end

@implementation Protocol
@end

@implementation NSData {
    std::string _bytes;
}

+ (instancetype)dataWithBytes:(const void*)bytes length:(NSUInteger)length {
    NSData* const data = [NSData new];
    if (length > 0) {
        data->_bytes.assign(static_cast<const char*>(bytes), length);
    }
    return data;
}

- (NSUInteger)length {
    return _bytes.size();
}

- (const void*)bytes {
    return _bytes.empty() ? nullptr : _bytes.data();
}

@end

@interface NSString ()
- (std::u16string)characters;
@end

/// A text that was made while the program ran.
@interface TarnvaleMadeString : NSString
@end

@implementation TarnvaleMadeString {
    std::u16string _characters;
}

- (instancetype)initWithCharacters:(std::u16string)characters {
    self = [super init];
    if (self != nil) {
        _characters = std::move(characters);
    }
    return self;
}

- (std::u16string)characters {
    return _characters;
}

@end

@implementation NSString

- (instancetype)initWithBytes:(const void*)bytes
                       length:(NSUInteger)length
                     encoding:(NSStringEncoding)encoding {
    const std::string_view text(static_cast<const char*>(bytes), length);
    if (encoding != NSUTF8StringEncoding || !tarnvale::support::isValidUtf8(text)) {
        return nil;
    }
    return static_cast<id>(
        [[TarnvaleMadeString alloc] initWithCharacters:tarnvale::test::standin::utf16(text)]);
}

- (std::u16string)characters {
    return {};
}

- (NSData*)dataUsingEncoding:(NSStringEncoding)encoding allowLossyConversion:(BOOL)lossy {
    std::string utf8;
    const auto characters = [self characters];
    for (std::size_t i = 0; i < characters.size(); ++i) {
        const auto isPair = i + 1 < characters.size() && characters[i] >= 0xD800 &&
                            characters[i] < 0xDC00 && characters[i + 1] >= 0xDC00 &&
                            characters[i + 1] < 0xE000;
        const auto isHalf = !isPair && characters[i] >= 0xD800 && characters[i] < 0xE000;
        if (isHalf && !lossy) {
            return nil;
        }
        utf8 += isHalf ? "?" : tarnvale::test::standin::utf8(characters.substr(i, isPair ? 2 : 1));
        i += isPair ? 1 : 0;
    }
    return encoding == NSUTF8StringEncoding ? [NSData dataWithBytes:utf8.data() length:utf8.size()]
                                            : nil;
}

@end

/// A text that is part of the program, as the compiler lays it down.
@interface NSConstantString () {
@public
    std::uint32_t flags;
    std::uint32_t length;
    std::uint32_t size;
    std::uint32_t hash;
    const char* data;
}
@end

@implementation NSConstantString

- (std::u16string)characters {
    constexpr std::uint32_t isUtf16 = 2;
    if ((flags & 3U) != isUtf16) {
        return tarnvale::test::standin::utf16({data, length});
    }
    std::u16string characters(length, u'\0');
    std::memcpy(characters.data(), data, length * sizeof(char16_t));
    return characters;
}

@end

/// A text of up to eight characters of ASCII, which the compiler puts into the pointer itself.
@interface TarnvaleTinyString : NSString
@end

@implementation TarnvaleTinyString

- (std::u16string)characters {
    const auto bits = reinterpret_cast<std::uintptr_t>((__bridge void*)self);
    std::u16string characters((bits >> 3U) & 0x1FU, u'\0');
    for (std::size_t i = 0; i < characters.size(); ++i) {
        characters[i] = static_cast<char16_t>((bits >> (57 - 7 * i)) & 0x7FU);
    }
    return characters;
}

@end

@implementation NSError {
    NSInteger _code;
    NSString* _text;
}

- (instancetype)initWithCode:(NSInteger)code text:(NSString*)text {
    self = [super init];
    if (self != nil) {
        _code = code;
        _text = text;
    }
    return self;
}

- (NSInteger)code {
    return _code;
}

- (NSString*)domain {
    return @"NSCocoaErrorDomain";
}

- (NSString*)localizedDescription {
    return _text;
}

@end

@implementation NSException {
    NSString* _name;
    NSString* _reason;
}

+ (NSException*)exceptionWithName:(NSString*)name
                           reason:(NSString*)reason
                         userInfo:(NSDictionary*)userInfo {
    NSException* const exception = [NSException new];
    exception->_name = name;
    exception->_reason = reason;
    return exception;
}

- (NSString*)name {
    return _name;
}

- (NSString*)reason {
    return _reason;
}

@end

namespace tarnvale::test::standin {
namespace {

NSString* makeString(std::string_view text) {
    return [[NSString alloc] initWithBytes:text.data()
                                    length:text.size()
                                  encoding:NSUTF8StringEncoding];
}

}  // namespace

NSError* makeError(NSInteger code, std::string_view text) {
    return [[NSError alloc] initWithCode:code text:makeString(text)];
}

NSString* copyOf(NSString* text) {
    return text == nil ? nil : [[TarnvaleMadeString alloc] initWithCharacters:[text characters]];
}

NSData* copyOf(NSData* data) {
    return data == nil ? nil : [NSData dataWithBytes:data.bytes length:data.length];
}

std::string utf8Of(NSString* text) {
    return utf8([text characters]);
}

void raise(std::string_view reason) {
    @throw [NSException exceptionWithName:@"NSInvalidArgumentException"
                                   reason:makeString(reason)
                                 userInfo:nil];
}

}  // namespace tarnvale::test::standin

@interface TarnvaleSemaphore : NSObject<OS_dispatch_semaphore> {
@public
    std::mutex mutex;
    std::condition_variable changed;
    std::intptr_t value;
}
@end

@implementation TarnvaleSemaphore
@end

namespace {

TarnvaleSemaphore* known(dispatch_semaphore_t semaphore) {
    return static_cast<TarnvaleSemaphore*>(semaphore);
}

}  // namespace

dispatch_semaphore_t dispatch_semaphore_create(std::intptr_t value) {
    TarnvaleSemaphore* const semaphore = [TarnvaleSemaphore new];
    semaphore->value = value;
    return semaphore;
}

std::intptr_t dispatch_semaphore_signal(dispatch_semaphore_t semaphore) {
    auto* const known = ::known(semaphore);
    const std::lock_guard lock(known->mutex);
    ++known->value;
    known->changed.notify_one();
    return 0;
}

std::intptr_t dispatch_semaphore_wait(dispatch_semaphore_t semaphore, dispatch_time_t timeout) {
    auto* const known = ::known(semaphore);
    const auto limit =
        tarnvale::test::standin::XPC::current().waitFor(std::chrono::nanoseconds(timeout));
    std::unique_lock lock(known->mutex);
    if (!limit || !known->changed.wait_for(lock, *limit, [&] { return known->value > 0; })) {
        return 1;
    }
    --known->value;
    return 0;
}
