// SPDX-License-Identifier: MIT
//
// The few names of Core Foundation that the macOS layer uses, declared by hand, so that it can be
// compiled, linked and tested where Apple's own headers are not. A Mac builds with those.
//
// Apple's headers of this framework don't say what may be null. Here its documentation decides, so
// that the analyzer finds a check that is missing.

#pragma once

#include <stddef.h>
#include <stdint.h>

#if defined(__clang__)
#define TARNVALE_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define TARNVALE_NONNULL_END _Pragma("clang assume_nonnull end")
#define CF_CONSUMED __attribute__((cf_consumed))
#define CF_RETURNS_RETAINED __attribute__((cf_returns_retained))
#else
#define TARNVALE_NONNULL_BEGIN
#define TARNVALE_NONNULL_END
#define CF_CONSUMED
#define CF_RETURNS_RETAINED
#define _Nonnull
#define _Nullable
#endif

#if defined(__cplusplus)
extern "C" {
#endif
TARNVALE_NONNULL_BEGIN

typedef signed long CFIndex;
typedef unsigned long CFTypeID;
typedef unsigned long CFHashCode;
typedef unsigned char Boolean;
typedef unsigned char UInt8;
typedef int32_t SInt32;
typedef uint32_t UInt32;
typedef SInt32 OSStatus;
typedef UInt32 CFStringEncoding;
typedef CFIndex CFNumberType;
typedef struct {
    CFIndex location;
    CFIndex length;
} CFRange;

typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFArray* CFArrayRef;
typedef const struct __CFDictionary* CFDictionaryRef;
typedef const struct __CFNumber* CFNumberRef;
typedef const struct __CFString* CFStringRef;
typedef struct __CFBundle* CFBundleRef;

enum { kCFNumberSInt32Type = 3, kCFNumberSInt64Type = 4 };
enum { kCFStringEncodingUTF8 = 0x08000100 };

typedef const void* _Nonnull (*CFDictionaryRetainCallBack)(
    CFAllocatorRef _Nullable allocator, const void* value);
typedef void (*CFDictionaryReleaseCallBack)(CFAllocatorRef _Nullable allocator, const void* value);
typedef CFStringRef _Nullable (*CFDictionaryCopyDescriptionCallBack)(const void* value);
typedef Boolean (*CFDictionaryEqualCallBack)(const void* one, const void* other);
typedef CFHashCode (*CFDictionaryHashCallBack)(const void* value);
typedef struct {
    CFIndex version;
    CFDictionaryRetainCallBack _Nullable retain;
    CFDictionaryReleaseCallBack _Nullable release;
    CFDictionaryCopyDescriptionCallBack _Nullable copyDescription;
    CFDictionaryEqualCallBack _Nullable equal;
    CFDictionaryHashCallBack _Nullable hash;
} CFDictionaryKeyCallBacks;
typedef struct {
    CFIndex version;
    CFDictionaryRetainCallBack _Nullable retain;
    CFDictionaryReleaseCallBack _Nullable release;
    CFDictionaryCopyDescriptionCallBack _Nullable copyDescription;
    CFDictionaryEqualCallBack _Nullable equal;
} CFDictionaryValueCallBacks;
extern const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
extern const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;

CFTypeRef CFRetain(CFTypeRef object);
void CFRelease(CFTypeRef object);
Boolean CFEqual(CFTypeRef one, CFTypeRef other);
CFTypeID CFGetTypeID(CFTypeRef object);

CFTypeID CFArrayGetTypeID(void);
CFIndex CFArrayGetCount(CFArrayRef array);
const void* _Nullable CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);

CFTypeID CFDictionaryGetTypeID(void);
CFDictionaryRef _Nullable CFDictionaryCreate(
    CFAllocatorRef _Nullable allocator,
    const void* _Nullable* _Nullable keys,
    const void* _Nullable* _Nullable values,
    CFIndex count,
    const CFDictionaryKeyCallBacks* _Nullable keyCallBacks,
    const CFDictionaryValueCallBacks* _Nullable valueCallBacks);
const void* _Nullable CFDictionaryGetValue(CFDictionaryRef dictionary, const void* _Nullable key);

CFTypeID CFNumberGetTypeID(void);
CFNumberRef _Nullable CFNumberCreate(
    CFAllocatorRef _Nullable allocator, CFNumberType type, const void* _Nullable value);
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* _Nullable value);

CFTypeID CFStringGetTypeID(void);
CFStringRef _Nullable CFStringCreateWithBytes(
    CFAllocatorRef _Nullable allocator,
    const UInt8* _Nullable bytes,
    CFIndex count,
    CFStringEncoding encoding,
    Boolean isExternalRepresentation);
CFIndex CFStringGetLength(CFStringRef string);
CFIndex CFStringGetBytes(
    CFStringRef string,
    CFRange range,
    CFStringEncoding encoding,
    UInt8 lossByte,
    Boolean isExternalRepresentation,
    UInt8* _Nullable buffer,
    CFIndex size,
    CFIndex* _Nullable used);
#if defined(__APPLE__)
#define CFSTR(text) ((CFStringRef)__builtin___CFStringMakeConstantString("" text ""))
#else
CFStringRef __CFStringMakeConstantString(const char* text);
#define CFSTR(text) __CFStringMakeConstantString("" text "")
#endif

CFBundleRef _Nullable CFBundleGetMainBundle(void);
CFDictionaryRef _Nullable CFBundleGetInfoDictionary(CFBundleRef bundle);

TARNVALE_NONNULL_END
#if defined(__cplusplus)
}
#endif
