// SPDX-License-Identifier: MIT
//
// The few names of the Security framework that the macOS layer uses, declared by hand
// (CoreFoundation/CoreFoundation.h tells why). What is handed out through a pointer is null when
// the call fails, of which Apple's header says nothing.

#pragma once

#include <CoreFoundation/CoreFoundation.h>

#if defined(__cplusplus)
extern "C" {
#endif
TARNVALE_NONNULL_BEGIN

typedef struct __SecCode* SecCodeRef;
typedef const struct __SecCode* SecStaticCodeRef;
typedef struct __SecRequirement* SecRequirementRef;
typedef uint32_t SecCSFlags;
enum { errSecSuccess = 0 };
enum { kSecCSDefaultFlags = 0, kSecCSSigningInformation = 1 << 1 };

extern const CFStringRef kSecGuestAttributePid;
extern const CFStringRef kSecCodeInfoIdentifier;
extern const CFStringRef kSecCodeInfoTeamIdentifier;

OSStatus SecCodeCopySelf(SecCSFlags flags, SecCodeRef _Nullable* _Nonnull CF_RETURNS_RETAINED self);
OSStatus SecCodeCopyStaticCode(
    SecCodeRef code,
    SecCSFlags flags,
    SecStaticCodeRef _Nullable* _Nonnull CF_RETURNS_RETAINED staticCode);
OSStatus SecCodeCopyGuestWithAttributes(
    SecCodeRef _Nullable host,
    CFDictionaryRef _Nullable attributes,
    SecCSFlags flags,
    SecCodeRef _Nullable* _Nonnull CF_RETURNS_RETAINED guest);
OSStatus SecCodeCheckValidity(
    SecCodeRef code, SecCSFlags flags, SecRequirementRef _Nullable requirement);
OSStatus SecCodeCopySigningInformation(
    SecStaticCodeRef code,
    SecCSFlags flags,
    CFDictionaryRef _Nullable* _Nonnull CF_RETURNS_RETAINED information);
OSStatus SecRequirementCreateWithString(
    CFStringRef text,
    SecCSFlags flags,
    SecRequirementRef _Nullable* _Nonnull CF_RETURNS_RETAINED requirement);

TARNVALE_NONNULL_END
#if defined(__cplusplus)
}
#endif
