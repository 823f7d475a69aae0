// SPDX-License-Identifier: MIT
//
// The few names of SystemConfiguration that the macOS layer uses, declared by hand
// (CoreFoundation/CoreFoundation.h tells why). What may be null is what Apple's headers mark so.

#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <sys/types.h>

#if defined(__cplusplus)
extern "C" {
#endif
TARNVALE_NONNULL_BEGIN

typedef const struct __SCDynamicStore* SCDynamicStoreRef;
typedef const struct __SCPreferences* SCPreferencesRef;
typedef const struct __SCNetworkInterface* SCNetworkInterfaceRef;
typedef SCNetworkInterfaceRef SCVLANInterfaceRef;

CFStringRef _Nullable SCDynamicStoreCopyConsoleUser(
    SCDynamicStoreRef _Nullable store, uid_t* _Nullable uid, gid_t* _Nullable gid);

SCPreferencesRef _Nullable SCPreferencesCreate(
    CFAllocatorRef _Nullable allocator, CFStringRef name, CFStringRef _Nullable prefsID);
Boolean SCPreferencesCommitChanges(SCPreferencesRef preferences);
Boolean SCPreferencesApplyChanges(SCPreferencesRef preferences);

CFStringRef _Nullable SCNetworkInterfaceGetBSDName(SCNetworkInterfaceRef interface);
CFArrayRef SCVLANInterfaceCopyAll(SCPreferencesRef preferences);
CFArrayRef SCVLANInterfaceCopyAvailablePhysicalInterfaces(void);
SCVLANInterfaceRef _Nullable SCVLANInterfaceCreate(
    SCPreferencesRef preferences, SCNetworkInterfaceRef physical, CFNumberRef tag);
Boolean SCVLANInterfaceRemove(SCVLANInterfaceRef vlan);
SCNetworkInterfaceRef _Nullable SCVLANInterfaceGetPhysicalInterface(SCVLANInterfaceRef vlan);
CFNumberRef _Nullable SCVLANInterfaceGetTag(SCVLANInterfaceRef vlan);
Boolean SCVLANInterfaceSetLocalizedDisplayName(SCVLANInterfaceRef vlan, CFStringRef name);

TARNVALE_NONNULL_END
#if defined(__cplusplus)
}
#endif
